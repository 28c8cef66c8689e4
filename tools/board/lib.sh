# shellcheck shell=bash
# Emulated board: shared host side of tools/board-run, tests/board/ci-test and
# bench/board.  Sourced, not run.
#
# The board is a QEMU machine whose Linux kernel drives an emulated UART (a
# 16550, the H3's DesignWare UART, the Arm PL011 or the i.MX UART, as
# board_arch says) with its real serial driver.  Everything it needs comes
# from Debian packages, all fetched by tools/setup before any work starts:
# QEMU and cpio are installed on the host; the kernel and a static busybox
# are downloaded as .deb files and unpacked into build/board-cache, so the
# host's own busybox and kernel packages are never touched.

BOARD_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
BOARD_DIR=$BOARD_ROOT/tools/board
BOARD_CACHE=$BOARD_ROOT/build/board-cache
BOARD_VERBOSE=${BOARD_VERBOSE:-0}
BOARD_PUT=()
BOARD_BOOT_START=

board_say() { printf 'board: %s\n' "$*" >&2; }
board_info() { if [ "$BOARD_VERBOSE" = 1 ]; then board_say "$@"; fi; }
board_die() {
    board_say "$*"
    exit 2
}

# board_log_run LOG COMMAND...: quiet unless it fails, then show its log.
board_log_run() {
    local log=$1
    shift
    if ! "$@" >"$log" 2>&1; then
        board_say "failed: $*"
        tail -n 40 "$log" >&2
        return 1
    fi
}

board_is_root() { [ "$(id -u)" = 0 ]; }

# Each board is described in a file of its own, tools/board/boards/NAME.board:
# everything that differs between the boards is there, and adding a board is
# adding a file (tools/board/README.md).
BOARD_FILES=$BOARD_DIR/boards

# board_list: the boards' names, one a line.
board_list() {
    local file
    for file in "$BOARD_FILES"/*.board; do basename "$file" .board; done
}

# board_aliases NAME: the other names of a board, read without sourcing its
# file (which may run what it likes).
board_aliases() { sed -n 's/^BOARD_ALIASES="\(.*\)"$/\1/p' "$BOARD_FILES/$1.board"; }

# board_names: the boards and their aliases, for messages.
board_names() {
    local name aliases names=()
    for name in $(board_list); do
        aliases=$(board_aliases "$name")
        names+=("$name${aliases:+ (or ${aliases// /, })}")
    done
    local IFS=,
    printf '%s' "${names[*]}" | sed 's/,/, /g'
}

# board_arch BOARD: read the board's file (by its name or an alias).  Each
# board has four serial lines, known to the guest as ttyS0 (kernel
# console), ttyS1 (results), ttyS2 (the UART under test) and ttyS3 (exit
# status); BOARD_TTYS names the kernel's own devices behind them where they
# differ, "-" for a line the board has no UART for, which the console then
# carries; BOARD_LINES wires QEMU's chardevs con, out, dut and ctl to them.
# shellcheck disable=SC2034 # read by the scripts that source this file
board_arch() {
    local name file=
    for name in $(board_list); do
        if [ "$name" = "$1" ] || [[ " $(board_aliases "$name") " == *" $1 "* ]]; then
            file=$BOARD_FILES/$name.board
            break
        fi
    done
    [ -n "$file" ] || board_die "unknown board '$1' ($(board_names))"
    BOARD_ARCH=$name BOARD_GUEST_RELEASE='' BOARD_APT=() BOARD_ALIASES=''
    BOARD_DTB_NAME='' BOARD_MODULES='' BOARD_APPEND='' BOARD_TTYS="ttyS0 ttyS1 ttyS2 ttyS3"
    BOARD_UBOOT_DEB='' BOARD_UBOOT_FILE='' BOARD_UBOOT_NEEDS_MAC=no BOARD_NIC='' BOARD_LAVA_TYPE='' BOARD_LAVA_VARS=()
    BOARD_LINES=(-serial chardev:con -serial chardev:out -serial chardev:dut -serial chardev:ctl)
    BOARD_LOOPS_BACK=yes BOARD_DIFFERENCES='' BOARD_ROW_SETUP='' BOARD_PLUG_ALSO='' BOARD_LOOP_TEXT='' BOARD_CTS=yes
    unset -f board_patch_dtb board_qemu_options board_uboot_qemu
    # shellcheck source=/dev/null
    source "$file"
    case $BOARD_DEB_ARCH in
    amd64) BOARD_CC=gcc BOARD_CMAKE_CROSS=() ;;
    armhf) BOARD_CC=arm-linux-gnueabihf-gcc
        BOARD_CMAKE_CROSS=(-DCMAKE_TOOLCHAIN_FILE="$BOARD_ROOT/cmake/toolchains/arm-linux-gnueabihf.cmake")
        BOARD_PACKAGES+=" g++-arm-linux-gnueabihf" ;;
    arm64) BOARD_CC=aarch64-linux-gnu-gcc
        BOARD_CMAKE_CROSS=(-DCMAKE_TOOLCHAIN_FILE="$BOARD_ROOT/cmake/toolchains/aarch64-linux-gnu.cmake")
        BOARD_PACKAGES+=" g++-aarch64-linux-gnu" ;;
    *) board_die "$file: no BOARD_DEB_ARCH" ;;
    esac
    BOARD_BUILD=$BOARD_ROOT/build/board-$BOARD_DEB_ARCH
    BOARD_ARCH_CACHE=$BOARD_CACHE/$BOARD_ARCH
}

# board_over_console: whether the board's results and exit status travel
# on its console (a board with fewer than four UARTs).
board_over_console() { [[ " $BOARD_TTYS " == *" - "* ]]; }

# board_qemu_version: the version of the board's QEMU, as 7.2.19 or 10.0.13.
board_qemu_version() {
    "$BOARD_QEMU" --version 2>/dev/null | sed -n '1s/^QEMU emulator version \([0-9][0-9.]*\).*/\1/p'
}

# board_qemu_is CONDITION: whether the board's QEMU is "<VERSION" or
# ">=VERSION".
board_qemu_is() {
    case $1 in
    '<'*) dpkg --compare-versions "$(board_qemu_version)" lt "${1#<}" ;;
    '>='*) dpkg --compare-versions "$(board_qemu_version)" ge "${1#>=}" ;;
    *) board_die "bad QEMU condition '$1'" ;;
    esac
}

# board_loops_back: whether the board's UART model honours the internal
# loop-back that -l switches on: BOARD_LOOPS_BACK is yes, no, or a QEMU
# version condition (its board file gives the evidence).
board_loops_back() {
    case $BOARD_LOOPS_BACK in
    yes) true ;;
    no) false ;;
    *) board_qemu_is "$BOARD_LOOPS_BACK" ;;
    esac
}

# The Debian releases a board can take its guest packages from, newest
# first, and their numbers.
BOARD_RELEASES="trixie bookworm"
declare -A BOARD_RELEASE_NUMBER=([trixie]=13 [bookworm]=12)

# board_host_release: this machine's Debian release (BOARD_HOST_RELEASE),
# from what it says it is.
board_host_release() {
    [ -n "${BOARD_HOST_RELEASE:-}" ] && return
    BOARD_HOST_RELEASE=$( (. /etc/os-release && echo "${VERSION_CODENAME:-}") 2>/dev/null)
    [ -n "${BOARD_RELEASE_NUMBER[$BOARD_HOST_RELEASE]:-}" ] ||
        board_die "this machine is '${BOARD_HOST_RELEASE:-unknown}' (/etc/os-release); Merovane's boards need Debian 13 (trixie) or 12 (bookworm)"
}

# board_mirrors: "ARCHIVE SECURITY", the URIs this machine's apt takes its
# own release from, so that the guest packages come through the same
# mirror or proxy.
board_mirrors() {
    board_host_release
    apt-get --print-uris update 2>/dev/null | awk -v r="$BOARD_HOST_RELEASE" '
        match($1, /\/dists\/[^\/]+\/InRelease'"'"'$/) {
            uri = substr($1, 2, RSTART - 2); suite = substr($1, RSTART + 7, RLENGTH - 18)
            if (suite == r && archive == "") archive = uri
            if (suite == r "-security" && security == "") security = uri
        }
        END { if (archive != "") print archive, security }'
}

# board_guest_apt RELEASE: apt for the board's guest packages of RELEASE,
# apart from this machine's: its own sources, lists, cache and an empty
# dpkg status, with the guest's architecture as apt's only one.  Nothing of
# the machine's apt changes, no root is needed, and a foreign index that
# cannot be read stops nothing else.  BOARD_APT is the command to run apt
# with; it fails when the release's index for the guest cannot be read.
board_guest_apt() {
    local release=$1 dir=$BOARD_CACHE/apt/$1-$BOARD_DEB_ARCH mirrors archive security
    mirrors=$(board_mirrors)
    read -r archive security <<<"$mirrors"
    [ -n "$archive" ] || board_die "no apt source of this machine serves Debian's $BOARD_HOST_RELEASE"
    local keyring=/usr/share/keyrings/debian-archive-keyring.gpg
    mkdir -p "$dir/lists/partial" "$dir/cache/archives/partial" "$dir/empty"
    {
        printf 'deb [signed-by=%s] %s %s main\n' "$keyring" "$archive" "$release" "$keyring" "$archive" "$release-updates"
        [ -z "$security" ] || printf 'deb [signed-by=%s] %s %s main\n' "$keyring" "$security" "$release-security"
    } >"$dir/sources.list"
    : >"$dir/status"
    cat >"$dir/apt.conf" <<EOF
Dir::Etc::SourceList "$dir/sources.list";
Dir::Etc::SourceParts "$dir/empty";
Dir::Etc::Preferences "$dir/empty/none";
Dir::Etc::PreferencesParts "$dir/empty";
Dir::State::Lists "$dir/lists";
Dir::State::status "$dir/status";
Dir::Cache "$dir/cache";
APT::Architecture "$BOARD_DEB_ARCH";
APT::Architectures { "$BOARD_DEB_ARCH"; };
Acquire::Languages "none";
APT::Sandbox::User "$(id -un)";
EOF
    BOARD_APT=(env APT_CONFIG="$dir/apt.conf")
    # Read once a day: a kernel's security update is taken within a day.
    if [ -z "$(find "$dir/lists" -maxdepth 1 -name '*_Packages*' -mmin -1440 -print -quit)" ]; then
        # apt-get update says a failed index only as a warning, and keeps the
        # old lists: an index that does not show the release's kernel has
        # failed, whatever the exit status.
        "${BOARD_APT[@]}" apt-get -q update >"$dir/update.log" 2>&1
    fi
    [ -n "$(board_guest_package "$BOARD_KERNEL_META")" ]
}

# board_guest_package META: the versioned package a meta-package points to.
board_guest_package() {
    "${BOARD_APT[@]}" apt-cache depends "$1" 2>/dev/null | awk '$1 == "Depends:" { print $2; exit }'
}

# board_guest_release: the release whose guest packages this board takes
# (BOARD_GUEST_RELEASE): this machine's own, else the other supported one,
# saying so.
board_guest_release() {
    local release tried=''
    board_host_release
    for release in $BOARD_HOST_RELEASE $BOARD_RELEASES; do
        [[ " $tried " == *" $release "* ]] && continue
        tried+=" $release"
        if board_guest_apt "$release"; then
            BOARD_GUEST_RELEASE=$release
            [ "$release" = "$BOARD_HOST_RELEASE" ] ||
                board_say "Debian ${BOARD_RELEASE_NUMBER[$BOARD_HOST_RELEASE]}'s $BOARD_DEB_ARCH index cannot be read (build/board-cache/apt/$BOARD_HOST_RELEASE-$BOARD_DEB_ARCH/update.log); the $BOARD_ARCH board runs Debian ${BOARD_RELEASE_NUMBER[$release]}'s $(board_guest_package "$BOARD_KERNEL_META")"
            return 0
        fi
    done
    grep -h '^E:' "$BOARD_CACHE"/apt/*-"$BOARD_DEB_ARCH"/update.log >&2
    board_die "no Debian release's $BOARD_DEB_ARCH index could be read for the $BOARD_ARCH board's kernel and busybox"
}

# board_fetch_deb PACKAGE DIR: download a guest .deb and unpack it.
board_fetch_deb() {
    local package=$1 dir=$2 debs=$BOARD_CACHE/debs/$BOARD_GUEST_RELEASE
    mkdir -p "$debs" "$dir"
    local deb
    deb=$(find "$debs" -maxdepth 1 -name "${package}_*_$BOARD_DEB_ARCH.deb" -print -quit)
    if [ -z "$deb" ]; then
        board_say "downloading $package ($BOARD_DEB_ARCH, Debian ${BOARD_RELEASE_NUMBER[$BOARD_GUEST_RELEASE]})"
        (cd "$debs" && board_log_run "$BOARD_CACHE/apt-download.log" "${BOARD_APT[@]}" apt-get download "$package") ||
            board_die "could not download $package"
        deb=$(find "$debs" -maxdepth 1 -name "${package}_*_$BOARD_DEB_ARCH.deb" -print -quit)
    fi
    [ -n "$deb" ] || board_die "no .deb for $package in $debs"
    dpkg-deb -x "$deb" "$dir"
}

# board_cached: the board's kernel and busybox are in the cache already.
board_kernel_cached() { [ -s "$BOARD_ARCH_CACHE/kernel/vmlinuz" ] && [ -d "$BOARD_ARCH_CACHE/kernel/modules" ]; }
board_cached() { board_kernel_cached && [ -x "$BOARD_ARCH_CACHE/busybox/busybox" ]; }

# board_ensure_kernel: BOARD_KERNEL (and BOARD_DTB on ARM), cached.
board_ensure_kernel() {
    local kdir=$BOARD_ARCH_CACHE/kernel
    if ! board_kernel_cached; then
        [ -n "${BOARD_GUEST_RELEASE:-}" ] || board_guest_release
        local package
        package=$(board_guest_package "$BOARD_KERNEL_META")
        rm -rf "$kdir.tmp"
        board_fetch_deb "$package" "$kdir.tmp/x"
        cp "$kdir.tmp"/x/boot/vmlinuz-* "$kdir.tmp/vmlinuz"
        if [ -n "$BOARD_DTB_NAME" ]; then
            cp "$(find "$kdir.tmp/x" -name "$BOARD_DTB_NAME" -print -quit)" "$kdir.tmp/board.dtb" ||
                board_die "no $BOARD_DTB_NAME in $package"
            ! declare -F board_patch_dtb >/dev/null || board_patch_dtb "$kdir.tmp/board.dtb"
        fi
        local module file
        mkdir "$kdir.tmp/modules"
        for module in $BOARD_MODULES; do
            # Debian 13 ships its modules xz-compressed, which busybox's
            # insmod cannot load.
            file=$(find "$kdir.tmp"/x/lib/modules/*/kernel/ "$kdir.tmp"/x/usr/lib/modules/*/kernel/ \
                -path "*/$module*" -print -quit 2>/dev/null)
            case $file in
            *.ko) cp "$file" "$kdir.tmp/modules/" ;;
            *.ko.xz) xz -dc "$file" >"$kdir.tmp/modules/$(basename "$file" .xz)" ;;
            *) board_die "no $module in $package" ;;
            esac
        done
        echo "$package (Debian ${BOARD_RELEASE_NUMBER[$BOARD_GUEST_RELEASE]})" >"$kdir.tmp/PACKAGE"
        rm -rf "$kdir.tmp/x" "$kdir"
        mv "$kdir.tmp" "$kdir"
    fi
    BOARD_KERNEL=$kdir/vmlinuz
    BOARD_DTB=$kdir/board.dtb
    BOARD_KERNEL_MODULES=$kdir/modules
}

# board_ensure_busybox: a static busybox for the guest, from busybox-static.
board_ensure_busybox() {
    local bdir=$BOARD_ARCH_CACHE/busybox
    if [ ! -x "$bdir/busybox" ]; then
        [ -n "${BOARD_GUEST_RELEASE:-}" ] || board_guest_release
        rm -rf "$bdir.tmp"
        board_fetch_deb busybox-static "$bdir.tmp/x"
        # /bin/busybox up to Debian 12, /usr/bin/busybox from Debian 13 on.
        cp "$(find "$bdir.tmp/x/bin/busybox" "$bdir.tmp/x/usr/bin/busybox" -print -quit 2>/dev/null)" \
            "$bdir.tmp/busybox" || board_die "no busybox in busybox-static"
        rm -rf "$bdir.tmp/x" "$bdir"
        mv "$bdir.tmp" "$bdir"
    fi
    BOARD_BUSYBOX=$bdir/busybox
}

# board_ensure_uboot: BOARD_UBOOT, the board's U-Boot as Debian builds it
# (BOARD_UBOOT_DEB's BOARD_UBOOT_FILE), cached; the package is downloaded
# and unpacked, never installed.
board_ensure_uboot() {
    local udir=$BOARD_ARCH_CACHE/uboot
    if [ ! -s "$udir/$(basename "$BOARD_UBOOT_FILE")" ]; then
        [ -n "${BOARD_GUEST_RELEASE:-}" ] || board_guest_release
        rm -rf "$udir.tmp"
        board_fetch_deb "$BOARD_UBOOT_DEB" "$udir.tmp/x"
        cp "$udir.tmp/x/$BOARD_UBOOT_FILE" "$udir.tmp/" || board_die "no $BOARD_UBOOT_FILE in $BOARD_UBOOT_DEB"
        rm -rf "$udir.tmp/x" "$udir"
        mv "$udir.tmp" "$udir"
    fi
    # shellcheck disable=SC2034 # read by the board files
    BOARD_UBOOT=$udir/$(basename "$BOARD_UBOOT_FILE")
}

# board_build_tool: the shipped Merovane, linked statically for the guest.
# BOARD_MEROVANE=/path/to/Merovane boots a binary built elsewhere instead
# (a release artefact, say); it must be static and of the board's arch.
board_build_tool() {
    if [ -n "${BOARD_MEROVANE:-}" ]; then
        [ -x "$BOARD_MEROVANE" ] || board_die "BOARD_MEROVANE: not an executable: $BOARD_MEROVANE"
        BOARD_TOOL=$BOARD_MEROVANE
        return
    fi
    mkdir -p "$BOARD_BUILD"
    # Configured every time (a second or less): a tree whose configure failed,
    # say for want of make, must not be built as it stands.
    if ! board_log_run "$BOARD_BUILD/configure.log" cmake -S "$BOARD_ROOT" -B "$BOARD_BUILD" \
        -DBUILD_TESTING=OFF -DCMAKE_BUILD_TYPE=Release -DCMAKE_EXE_LINKER_FLAGS=-static \
        "${BOARD_CMAKE_CROSS[@]}"; then
        rm -rf "$BOARD_BUILD"
        exit 2
    fi
    board_log_run "$BOARD_BUILD/build.log" cmake --build "$BOARD_BUILD" --target Merovane \
        -j "$(nproc)" || exit 2
    BOARD_TOOL=$BOARD_BUILD/app/Merovane
    [ -x "$BOARD_TOOL" ] || BOARD_TOOL=$(find "$BOARD_BUILD" -type f -name Merovane -perm -u+x -print -quit)
    [ -x "$BOARD_TOOL" ] || board_die "no Merovane binary in $BOARD_BUILD"
}

# Programs for the guest's /usr/bin: C sources, each built static for the
# board (the benchmark's reference loop and stopwatch, say).
BOARD_GUEST_PROGRAMS=("$BOARD_DIR/guest/closing-wait.c")

# board_build_helpers: the host plug and the static guest programs.
board_build_helpers() {
    local host=$BOARD_ROOT/build/board-host out=$BOARD_BUILD/helpers
    mkdir -p "$host" "$out"
    if [ ! -x "$host/plug" ] || [ "$BOARD_DIR/plug.c" -nt "$host/plug" ]; then
        board_log_run "$host/build.log" gcc -std=c11 -O2 -Wall -Wextra -Werror \
            -o "$host/plug" "$BOARD_DIR/plug.c" || exit 2
    fi
    BOARD_PLUG=$host/plug
    local source name
    for source in "${BOARD_GUEST_PROGRAMS[@]}"; do
        name=$(basename "$source" .c)
        if [ ! -x "$out/$name" ] || [ "$source" -nt "$out/$name" ]; then
            board_log_run "$out/build.log" "$BOARD_CC" -std=c11 -O2 -Wall -Wextra -Werror \
                -static -o "$out/$name" "$source" || exit 2
        fi
    done
    BOARD_HELPERS=$out
}

# board_prepare ARCH: everything up to a bootable kernel and binaries.
board_prepare() {
    local start
    start=$(date +%s.%N)
    board_arch "$1"
    board_ensure_kernel
    board_ensure_busybox
    board_build_tool
    board_build_helpers
    board_info "$BOARD_ARCH: tools, kernel and build ready in $(board_since "$start") s"
}

# board_bytes FILE COUNT GENERATOR: COUNT bytes made by a deterministic
# generator, so that every checkout packs the same samples.
board_bytes() {
    local file=$1 count=$2 kind=$3 i x=12345 fmt="" h
    for ((i = 0; i < count; i++)); do
        case $kind in
        pattern) h=$((i & 255)) ;;
        prng)
            # The classic C library LCG; bits 16..23 have a long period.
            x=$(((x * 1103515245 + 12345) & 0x7fffffff))
            h=$(((x >> 16) & 255))
            ;;
        esac
        printf -v h '\\x%02x' "$h"
        fmt+=$h
    done
    # shellcheck disable=SC2059 # the escapes are the data
    printf "$fmt" >"$file"
}

board_make_samples() {
    local dir=$1
    mkdir -p "$dir"
    : >"$dir/empty.bin"
    board_bytes "$dir/pattern-99.bin" 99 pattern
    board_bytes "$dir/pattern-100.bin" 100 pattern
    board_bytes "$dir/pattern-256.bin" 256 pattern
    board_bytes "$dir/pattern-1k.bin" 1024 pattern
    board_bytes "$dir/prng-30k.bin" 30000 prng
    board_bytes "$dir/bench-8k.bin" 8192 prng
    printf 'The quick brown fox jumps over the lazy dog.\n%.0s' {1..10} >"$dir/text.txt"
}

# board_pack WORKDIR: the initramfs's tree without its job (WORKDIR/root).
board_pack() {
    local work=$1 stage=$1/root
    rm -rf "$stage"
    mkdir -p "$stage"/{bin,sbin,usr/bin,usr/sbin,dev,proc,sys,tmp,modules}
    cp -r "$BOARD_KERNEL_MODULES/." "$stage/modules/"
    cp "$BOARD_BUSYBOX" "$stage/bin/busybox"
    cp "$BOARD_TOOL" "$stage/usr/bin/Merovane"
    install -m 755 "$BOARD_ROOT/farm/merovane-verdict" "$stage/usr/bin/"
    local source
    for source in "${BOARD_GUEST_PROGRAMS[@]}"; do
        cp "$BOARD_HELPERS/$(basename "$source" .c)" "$stage/usr/bin/"
    done
    install -m 755 "$BOARD_DIR/guest/init" "$stage/init"
    board_make_samples "$stage/samples"
    local file
    for file in "${BOARD_PUT[@]}"; do
        cp "$file" "$stage/samples/"
    done
}

# board_quote ARG...: the arguments as one line of sh words.
board_quote() {
    local arg out=""
    for arg in "$@"; do
        out+=" '${arg//\'/\'\\\'\'}'"
    done
    printf '%s' "${out# }"
}

# board_initrd WORKDIR JOBTEXT: WORKDIR/initrd.cpio, the tree with JOBTEXT
# as /job.sh, in one archive: a farm that adds its own files to the
# initramfs (LAVA) unpacks only the first of several.
board_initrd() {
    local work=$1
    printf '%s\n' "$2" >"$work/root/job.sh"
    (cd "$work/root" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) >"$work/initrd.cpio"
    board_info "initramfs packed: $(($(stat -c %s "$work/initrd.cpio") / 1024)) KiB"
}

BOARD_PLUG_RULES="none, or echo, corrupt=N:VALUE, change=A:B, drop=A joined by commas"

# board_plug WORKDIR RULES: the plug listening on WORKDIR/plug.sock, for a
# QEMU to connect ttyS2 to.  The plug judges its own rules: it says
# "listening" only to good ones.
board_plug() {
    local ready=
    rm -f "$1/plug.sock"
    exec {BOARD_PLUG_FD}< <(exec "$BOARD_PLUG" "$1/plug.sock" "$2")
    BOARD_PLUG_PID=$!
    read -r -u "$BOARD_PLUG_FD" ready
    if [ "$ready" != listening ]; then
        BOARD_PLUG_PID=''
        board_die "bad --plug '$2' ($BOARD_PLUG_RULES)"
    fi
}

# board_unplug: once QEMU is gone the plug has nobody left to serve (and if
# QEMU never connected, it would wait in accept() for ever).
board_unplug() {
    if [ -n "$BOARD_PLUG_PID" ]; then
        kill "$BOARD_PLUG_PID" 2>/dev/null
        wait "$BOARD_PLUG_PID" 2>/dev/null
        exec {BOARD_PLUG_FD}<&-
        BOARD_PLUG_PID=
    fi
}

# board_kernel_args: the kernel arguments the board's guest needs, beyond
# its console and how much the kernel says there.
board_kernel_args() {
    local args="panic=-1 $BOARD_APPEND"
    [ "$BOARD_TTYS" = "ttyS0 ttyS1 ttyS2 ttyS3" ] || args+=" merovane.ttys=${BOARD_TTYS// /,}"
    printf '%s' "$args"
}

# board_qemu_command WORKDIR CONSOLE DUT [uboot]: the board's QEMU command
# line in BOARD_QEMU_CMD, with the chardevs CONSOLE on its console and DUT
# on the UART under test (QEMU -chardev specs without their id); the
# results line and the exit status line, where the board has UARTs for
# them, go to the files WORKDIR/out and WORKDIR/ctl.  With "uboot", QEMU
# loads the board's U-Boot alone (board_uboot_qemu), which loads the rest.
board_qemu_command() {
    local work=$1 ttys machine=("${BOARD_MACHINE[@]}") extra=() lines=() boot=()
    read -r -a ttys <<<"$BOARD_TTYS"
    # A board's options that depend on its QEMU's version.
    ! declare -F board_qemu_options >/dev/null || board_qemu_options
    if [ "${4:-}" = uboot ]; then
        board_uboot_qemu "$work"
        boot=("${BOARD_UBOOT_QEMU[@]}")
    else
        [ -n "$BOARD_DTB_NAME" ] && machine+=(-dtb "$BOARD_DTB")
        boot=(-kernel "$BOARD_KERNEL" -initrd "$work/initrd.cpio"
            -append "console=${ttys[0]} quiet loglevel=3 $(board_kernel_args)")
    fi
    read -r -a extra <<<"${BOARD_QEMU_EXTRA:-}"
    # A board whose console carries them has no UARTs for out and ctl.
    board_over_console ||
        lines+=(-chardev "file,id=out,path=$work/out" -chardev "file,id=ctl,path=$work/ctl")
    BOARD_QEMU_CMD=("$BOARD_QEMU" "${machine[@]}" -nodefaults -no-user-config -display none "${boot[@]}"
        -chardev "$2,id=con" -chardev "$3,id=dut" "${lines[@]}" "${BOARD_LINES[@]}" "${extra[@]}")
}

# board_console_lines WORKDIR QEMU-PID: for a board whose console carries
# its results and exit status, split them off the console's log: the
# results, base64 on lines of their own, decoded into WORKDIR/out, and the
# "exit N" line into WORKDIR/ctl.  Such a board may not end on power-off
# (QEMU's Raspberry Pi has no power controller), so its QEMU ends here once
# the status is in.
board_console_lines() {
    local work=$1 pid=$2
    local line decoder
    exec {decoder}> >(exec base64 -d >"$work/out")
    while IFS= read -r line; do
        line=${line%$'\r'}
        case $line in
        merovane-out:*) printf '%s\n' "${line#merovane-out:}" >&"$decoder" ;;
        merovane-exit\ *) printf 'exit %s\n' "${line#merovane-exit }" >"$work/ctl" && break ;;
        esac
    done < <(exec tail -n +1 -F --pid="$pid" "$work/console.log" 2>/dev/null)
    exec {decoder}>&-
    kill "$pid" 2>/dev/null
}

# board_boot WORKDIR PLUG: boot the board once and wait for it to stop.
# ttyS1 is streamed through the fifo WORKDIR/out (read it before calling);
# the job's exit status lands in BOARD_EXIT ("" when the guest never said).
board_boot() {
    local work=$1 plug=$2 dut=null
    if [ "$plug" != none ]; then
        board_plug "$work" "$plug"
        dut=socket,path=$work/plug.sock
    fi
    board_qemu_command "$work" "file,path=$work/console.log" "$dut"
    : >"$work/ctl"
    : >"$work/console.log"
    # A job that never ends (a lost byte, a hung driver) must not hold CI.
    local limit=()
    [ -n "${BOARD_BOOT_TIMEOUT:-}" ] && limit=(timeout -s TERM "$BOARD_BOOT_TIMEOUT")
    # shellcheck disable=SC2034 # read by the commands for their timings
    BOARD_BOOT_START=$(date +%s.%N)
    # One boot: the board's own reset or power-off ends QEMU.
    "${limit[@]}" "${BOARD_QEMU_CMD[@]}" -no-reboot </dev/null 2>"$work/qemu.err" &
    BOARD_QEMU_PID=$!
    local splitter=
    if board_over_console; then
        board_console_lines "$work" "$BOARD_QEMU_PID" &
        splitter=$!
        BOARD_PIDS+=("$splitter")
    fi
    wait "$BOARD_QEMU_PID"
    BOARD_QEMU_STATUS=$?
    BOARD_QEMU_PID=
    [ -z "$splitter" ] || wait "$splitter"
    BOARD_EXIT=$(sed -n 's/^exit \([0-9][0-9]*\)$/\1/p' "$work/ctl")
    board_unplug
    if [ -z "$BOARD_EXIT" ]; then
        board_say "the board stopped without an exit status (QEMU status $BOARD_QEMU_STATUS)"
        tail -n 5 "$work/qemu.err" >&2
        board_say "last console lines:"
        tail -n 20 "$work/console.log" >&2
    fi
}

# Temp directory and clean-up shared by the commands.  Only processes this
# shell started are ended, each by its pid.
BOARD_WORK=
BOARD_QEMU_PID=
BOARD_PLUG_PID=
BOARD_PIDS=()
board_cleanup() {
    local pid
    for pid in "$BOARD_QEMU_PID" "$BOARD_PLUG_PID" "${BOARD_PIDS[@]}"; do
        [ -n "$pid" ] && kill "$pid" 2>/dev/null
    done
    for pid in "$BOARD_QEMU_PID" "$BOARD_PLUG_PID" "${BOARD_PIDS[@]}"; do
        [ -n "$pid" ] && wait "$pid" 2>/dev/null
    done
    BOARD_QEMU_PID='' BOARD_PLUG_PID='' BOARD_PIDS=()
    [ -n "$BOARD_WORK" ] && rm -rf "$BOARD_WORK"
    BOARD_WORK=
}
board_interrupted() {
    trap - INT TERM
    board_cleanup
    exit 130
}
board_workdir() {
    BOARD_WORK=$(mktemp -d "${TMPDIR:-/tmp}/board.XXXXXX")
    trap board_cleanup EXIT
    trap board_interrupted INT TERM
    mkfifo "$BOARD_WORK/out"
}

# board_since START: seconds elapsed since a `date +%s.%N` stamp.
board_since() {
    awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }'
}
