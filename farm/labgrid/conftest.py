"""Settings of the Merovane suite, from the command line or else from
options: in the labgrid environment file."""
import pytest

SETTINGS = {  # name: default, help
    "merovane": ("Merovane", "the command that runs Merovane on the board"),
    "merovane_file": ("", "input file on the board (default: 4 KiB of random bytes made there)"),
    "merovane_baud": ("115200", "baud rate of the runs"),
    "merovane_timeout": ("", "seconds a run may take (default: from the file's size and the baud rate)"),
}


def pytest_addoption(parser):
    group = parser.getgroup("merovane")
    for name, (_, text) in SETTINGS.items():
        group.addoption("--" + name.replace("_", "-"), dest=name, help=f"{text}; env file option: {name}")


@pytest.fixture(scope="session")
def settings(request, env):
    def value(name):
        given = request.config.getoption(name)
        return given if given is not None else env.config.get_option(name, SETTINGS[name][0])

    return {name: value(name) for name in SETTINGS}
