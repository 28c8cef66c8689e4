"""A labgrid strategy for a board that boots through U-Boot into a shell
with no init system behind it (a busybox ramdisk, say), as labs that test
kernels boot their boards: power on into U-Boot, stop its autoboot, load
kernel, device tree and ramdisk over TFTP from the exporter's TFTP server
(staged there by labgrid) and boot them to the shell.

labgrid's own UBootStrategy waits for systemd once Linux is up; this one
waits for the shell's prompt alone.  uboot-board.yaml imports it.
"""
import enum

import attr
from labgrid.factory import target_factory
from labgrid.step import step
from labgrid.strategy import Strategy, StrategyError


class Status(enum.Enum):
    unknown = 0
    off = 1
    uboot = 2
    shell = 3


@target_factory.reg_driver
@attr.s(eq=False)
class TFTPBootStrategy(Strategy):
    """States off, uboot and shell.  The images kernel, dtb and ramdisk of
    the environment's images: section are staged to the TFTP server; the
    kernel boots with the bootargs given here."""

    bindings = {
        "power": "PowerProtocol",
        "console": "ConsoleProtocol",
        "uboot": "UBootDriver",
        "shell": "ShellDriver",
        "tftp": "TFTPProviderDriver",
    }

    bootargs = attr.ib(default="", validator=attr.validators.instance_of(str))
    status = attr.ib(default=Status.unknown)

    @step(args=["status"])
    def transition(self, status, *, step):  # pylint: disable=redefined-outer-name
        if not isinstance(status, Status):
            status = Status[status]
        if status == Status.unknown:
            raise StrategyError(f"can not transition to {status}")
        if status == self.status:
            step.skip("nothing to do")
            return
        if status == Status.off:
            self.target.deactivate(self.console)
            self.target.activate(self.power)
            self.power.off()
        elif status == Status.uboot:
            self.transition(Status.off)
            # On the console before the power: U-Boot's autoboot waits a
            # few seconds only.
            self.target.activate(self.console)
            self.power.on()
            self.target.activate(self.uboot)
        elif status == Status.shell:
            self.transition(Status.uboot)
            self.load()
            self.uboot.boot("")
            self.uboot.await_boot()
            # U-Boot is gone: the shell is the board's one CommandProtocol.
            self.target.deactivate(self.uboot)
            self.target.activate(self.shell)
        self.status = status

    def load(self):
        """Stage the images and load them; the ramdisk last, whose size the
        boot command takes from ${filesize}."""
        self.target.activate(self.tftp)
        # The DHCP server names the TFTP server; nothing boots on its own.
        self.uboot.run_check("setenv autoload no; dhcp")
        for image, address in (("kernel", "kernel_addr_r"), ("dtb", "fdt_addr_r"), ("ramdisk", "ramdisk_addr_r")):
            path = self.tftp.stage(self.target.env.config.get_image_path(image))
            self.uboot.run_check(f"tftpboot ${{{address}}} {path}", timeout=120)
        self.uboot.run_check(f"setenv bootargs '{self.bootargs}'")
