# shellcheck shell=bash
# The emulated PC as a LAVA device, for tests/lava and tools/lava-lab:
# source after lib.sh.

# lava_board: the PC's kernel and initramfs (a shell on the console, for
# LAVA to drive) in BOARD_WORK, and a clone of this commit for the jobs to
# take farm/lava's definition from, as a lab takes it from its git server.
lava_board() {
    board_prepare x86_64 && board_workdir && board_pack "$BOARD_WORK" || exit 2
    board_initrd "$BOARD_WORK" "export PS1='board # '; while :; do setsid cttyhack sh -i; done"
    cp "$BOARD_KERNEL" "$BOARD_WORK/vmlinuz"
    git clone -q --no-hardlinks "file://$BOARD_ROOT" "$BOARD_WORK/repository" &&
        git -C "$BOARD_WORK/repository" checkout -q "$(git -C "$BOARD_ROOT" rev-parse HEAD)" || exit 2
}

# lava_job PLUG SOCKET TIME_LIMIT: farm/lava's job for the emulated PC, its
# ttyS2 on the plug listening at SOCKET.
lava_job() {
    sed -e "s|@BOARD@|$BOARD_WORK|g; s|@PLUG@|$1|; s|@PLUG_SOCKET@|$2|" \
        -e "s|@REPOSITORY@|file://$BOARD_WORK/repository|; s|@TIME_LIMIT@|$3|" \
        "$BOARD_ROOT/farm/lava/qemu-pc-job.yaml"
}
