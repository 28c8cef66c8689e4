"""Merovane on a labgrid target: the UART at /dev/ttyS2 through its internal
loop-back and through an external loop-back plug, and an invalid baud rate.

Each run becomes a verdict:
  pass      status 0, "Done.", no FAIL banner, no "Error"
  mismatch  a byte came back different: the FAIL banner and its ERROR line
  no echo   a byte never came back: the board's time limit stopped the run
  error     anything else: the exit status and what the tool said
"""
import shlex

import pytest

BANNER = "******************* FAIL *******************"
KILLED = 128 + 9  # `timeout -s KILL`, busybox's and coreutils' alike
OUT, ERR = "/tmp/merovane.out", "/tmp/merovane.err"


def verdict(status, out, err):
    """(verdict, the line that says why) for one run of Merovane."""
    if BANNER in err:
        return "mismatch", next((line for line in err.splitlines() if line.startswith("ERROR")), err)
    if status == KILLED:
        last = out.rstrip().splitlines()[-1:] or ["nothing"]
        return "no echo", f"stopped by the time limit; its last output: {last[0]}"
    if status == 0 and "Done." in out and "Error" not in err:
        return "pass", ""
    return "error", f"status {status}: {err.strip()}"


@pytest.fixture(scope="session")
def merovane(settings, strategy, target):
    """A function that runs Merovane on the board with the given arguments
    ({file} and {baud} filled in) and returns its verdict."""
    strategy.transition("shell")
    shell = target.get_driver("CommandProtocol")
    file, baud = settings["merovane_file"], int(settings["merovane_baud"])
    if not file:
        file = "/tmp/merovane-input.bin"
        shell.run_check(f"head -c 4096 /dev/urandom >{file}")
    limit = settings["merovane_timeout"]
    if not limit:
        size, _, status = shell.run(f"wc -c <{shlex.quote(file)}")
        # Twice the five character times of 10 bits in which a 16550 echoes a
        # lone byte, and 20 s for the rest of the run.
        limit = 20 + (int(size[0]) if status == 0 else 0) * 100 // baud
    limit = int(limit)

    def run(arguments):
        line = f"{settings['merovane']} {arguments.format(file=shlex.quote(file), baud=baud)}"
        # Standard output and error apart: a console merges them.
        _, _, status = shell.run(f"timeout -s KILL {limit} {line} >{OUT} 2>{ERR}", timeout=limit + 30)
        out, err = ("\n".join(shell.run(f"cat {name}")[0]) for name in (OUT, ERR))
        print(f"$ {line}\n(status {status})\n{out}\n{err}")
        return verdict(status, out, err)

    return run


CASES = {  # name: arguments, verdict
    "internal-loopback": ("-l -f {file} -b {baud}", ("pass", "")),
    "external-plug": ("-f {file} -b {baud}", ("pass", "")),
    "invalid-baud": ("-b 1234", ("error", "status 255: Invalid baudrate paramter '1234' for option '-b'")),
}


@pytest.mark.parametrize("name", CASES)
def test_merovane(merovane, name):
    arguments, expected = CASES[name]
    got = merovane(arguments)
    assert got == expected, ": ".join(got)
