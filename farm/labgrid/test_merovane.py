"""Merovane on a labgrid target: the UART at /dev/ttyS2 through its internal
loop-back and through an external loop-back plug, and an invalid baud rate.

Each run is judged on the board by merovane-verdict (installed beside
Merovane), whose last line is the verdict: pass, mismatch, no echo or error
(man merovane-verdict).  A test fails with that verdict and its reason.
"""
import re
import shlex

import pytest

# What the board's shell needs beyond the run itself to answer.
MARGIN = 60


@pytest.fixture(scope="session")
def merovane(settings, strategy, target):
    """A function that runs Merovane on the board as one case with the given
    arguments ({file} and {baud} filled in) and returns (verdict, why)."""
    strategy.transition("shell")
    # The shell the strategy left active: a board that boots through U-Boot
    # has a second command line, U-Boot's, by then inactive.
    shell = target.get_active_driver("CommandProtocol")
    file, baud = settings["merovane_file"], settings["merovane_baud"]
    verdict = ["merovane-verdict", "-c", settings["merovane"]]
    if settings["merovane_timeout"]:
        verdict += ["-t", settings["merovane_timeout"]]

    def run(name, arguments):
        if not file:
            arguments = arguments.replace("-f {file}", "")
        words = [name] + shlex.split(arguments.format(file=shlex.quote(file), baud=shlex.quote(baud)))
        # The verdict's own reckoning of the time limit bounds the wait.
        said, _, status = shell.run(shlex.join(verdict + ["-n"] + words))
        limit = int(said[-1]) if status == 0 and said and said[-1].isdigit() else 0
        said, _, status = shell.run(shlex.join(verdict + words), timeout=limit + MARGIN)
        print("\n".join(said))
        last = re.match(rf"merovane-verdict {re.escape(name)}: ([^:]+)(?:: (.*))?$", said[-1] if said else "")
        if status > 1 or not last:
            return "error", f"merovane-verdict did not run (status {status}): {' '.join(said)[-200:]}"
        return last.group(1), last.group(2) or ""

    return run


# The plug first, as in farm/lava/board-job.yaml: a loop-back run's bytes
# that the UART also sends out on TX would come back from the plug late.
CASES = {  # name: arguments ("-f {file}" left out when no file is set), verdict
    "external-plug": ("-f {file} -b {baud}", ("pass", "")),
    "internal-loopback": ("-l -f {file} -b {baud}", ("pass", "")),
    "invalid-baud": ("-b 1234", ("error", "status 255: Invalid baudrate paramter '1234' for option '-b'")),
}


@pytest.mark.parametrize("name", CASES)
def test_merovane(merovane, name):
    arguments, expected = CASES[name]
    got = merovane(name, arguments)
    assert got == expected, ": ".join(got)
