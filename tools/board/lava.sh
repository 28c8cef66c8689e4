# shellcheck shell=bash
# The emulated boards as LAVA devices, for tests/lava:
# source after lib.sh.

# lava_board BOARD DIR: the board's kernel, device tree and initramfs (a
# shell on the console, for LAVA to drive) in DIR.
lava_board() {
    board_prepare "$1" && board_pack "$2" || exit 2
    board_initrd "$2" "export PS1='board # '; while :; do setsid cttyhack sh -i; done"
    cp "$BOARD_KERNEL" "$2/vmlinuz"
    [ -z "$BOARD_DTB_NAME" ] || cp "$BOARD_DTB" "$2/board.dtb"
}

# lava_repository: a clone of this commit in BOARD_WORK, for the jobs to take
# farm/lava's definition from, as a lab takes it from its git server.
lava_repository() {
    git clone -q --no-hardlinks "file://$BOARD_ROOT" "$BOARD_WORK/repository" &&
        git -C "$BOARD_WORK/repository" checkout -q "$(git -C "$BOARD_ROOT" rev-parse HEAD)" || exit 2
}

# lava_job BOARD DIR PLUG SOCKET TIME_LIMIT: farm/lava's job for the
# emulated BOARD whose files lava_board put in DIR, its ttyS2 on the plug
# listening at SOCKET.
lava_job() {
    local arch dtb=()
    board_arch "$1"
    arch=${BOARD_DEB_ARCH/armhf/arm}  # LAVA's name of the architecture
    [ -z "$BOARD_DTB_NAME" ] || dtb=(-e "/^  extra_options:/a\    - -dtb $2/board.dtb")
    sed -e "s|@NAME@|$1|; s|@ARCH@|$arch|; s| @APPEND@|${BOARD_APPEND:+ $BOARD_APPEND}|; s|@BOARD@|$2|g; s|@PLUG@|$3|; s|@PLUG_SOCKET@|$4|" \
        -e "s|@REPOSITORY@|file://$BOARD_WORK/repository|; s|@TIME_LIMIT@|$5|" "${dtb[@]}" \
        "$BOARD_ROOT/farm/lava/qemu-job.yaml"
}
