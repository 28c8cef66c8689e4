# shellcheck shell=bash
# The lab of tools/lab: its boards (lab.boards), its hosts as network
# namespaces, and every configuration of the hosts' daemons and the farm
# engines, each made from the table.  Source after lib.sh.
#
# The lab's network: a bridge in the namespace merovane-side (the
# coordinator's side, 10.77.0.1) with a link to each lab host's namespace
# (merovane-HOST, 10.77.0.11 for the first host in the table, .12 for the
# next...).  Nothing of it reaches beyond this machine.

# shellcheck disable=SC2034 # read by the scripts that source this file
LAB_TABLE=$BOARD_DIR/lab.boards
LAB_NET=10.77.0
LAB_SIDE_ADDR=$LAB_NET.1
LAB_PDU_PORT=16421
LAB_COORDINATOR=$LAB_SIDE_ADDR:20408
# A board's console on its host's ser2net: this plus its row in the table.
LAB_CONSOLE_BASE=5000
LAB_STATE=${LAB_STATE:-$BOARD_ROOT/build/lab}

# The boards' own network on each lab host, as in a lab whose boards load
# their kernels over TFTP: a bridge "boards" in the host's namespace,
# 10.78.H.1 where H ends the host's address on the lab's network, with a
# tap on it for each board that boots through U-Boot, and DHCP and TFTP
# servers on it.  The TFTP folder is the one tftpd-hpa's configuration
# names, where LAVA puts a job's files; labgrid's go below it.
LAB_BOARDS_NET=10.78
LAB_TFTP_ROOT=$(sed -n 's/^TFTP_DIRECTORY="\{0,1\}\([^"]*\)"\{0,1\}$/\1/p' /etc/default/tftpd-hpa 2>/dev/null)
LAB_TFTP_ROOT=${LAB_TFTP_ROOT:-/srv/tftp}
LAB_TFTP_DIR=merovane-lab

lab_namespace() { printf 'merovane-%s' "$1"; }
LAB_SIDE=$(lab_namespace side)

# lab_read TABLE [ROW...]: the boards of TABLE and of the extra ROWs in
# LAB_NAMES (in that order) and the hosts in LAB_HOSTS; per board LAB_BOARD, LAB_HOST, LAB_PLUG, LAB_OUTLET
# (its port on its host's PDU) and LAB_CONSOLE_PORT (its console's TCP port
# on its host); per host LAB_ADDR.
lab_read() {
    local table=$1 name board host plug rest row=0 line=0
    LAB_NAMES=() LAB_HOSTS=()
    declare -gA LAB_BOARD=() LAB_HOST=() LAB_PLUG=() LAB_OUTLET=() LAB_CONSOLE_PORT=() LAB_ADDR=()
    local -A outlets=()
    [ -r "$table" ] || board_die "no lab table $table"
    while read -r name board host plug rest; do
        line=$((line + 1))
        [ -z "$name" ] || [[ $name == \#* ]] && continue
        [ -n "$plug" ] && [ -z "$rest" ] || board_die "$table:$line: a row is: name board host plug"
        [[ $name =~ ^[a-z0-9][a-z0-9-]{0,19}$ ]] || board_die "$table:$line: bad board name '$name'"
        [[ $host =~ ^[a-z0-9][a-z0-9-]{0,8}$ && $host != side ]] || board_die "$table:$line: bad host name '$host'"
        [ -z "${LAB_BOARD[$name]:-}" ] || board_die "$table:$line: '$name' is in the table twice"
        (board_arch "$board") || board_die "$table:$line: unknown board '$board' ($(board_names))"
        row=$((row + 1))
        LAB_NAMES+=("$name")
        LAB_BOARD[$name]=$board LAB_HOST[$name]=$host LAB_PLUG[$name]=$plug
        if [ -z "${outlets[$host]:-}" ]; then
            LAB_HOSTS+=("$host")
            outlets[$host]=0
            LAB_ADDR[$host]=$LAB_NET.$((10 + ${#LAB_HOSTS[@]}))
        fi
        outlets[$host]=$((outlets[$host] + 1))
        LAB_OUTLET[$name]=${outlets[$host]}
        LAB_CONSOLE_PORT[$name]=$((LAB_CONSOLE_BASE + row))
    done < <(cat "$table" && printf '%s\n' "${@:2}")
    ((${#LAB_NAMES[@]} > 0)) || board_die "$table has no boards"
}

# lab_boards_of HOST: the names of HOST's boards.
lab_boards_of() {
    local name
    for name in "${LAB_NAMES[@]}"; do
        [ "${LAB_HOST[$name]}" = "$1" ] && echo "$name"
    done
}

# lab_board_dir NAME: where the board's image, command line and console are.
lab_board_dir() { printf '%s/%s/%s' "$LAB_STATE" "${LAB_HOST[$1]}" "$1"; }

# lab_board_says NAME VARIABLE: the value of VARIABLE in the file of the
# board NAME.
lab_board_says() { (board_arch "${LAB_BOARD[$1]}" && printf '%s' "${!2}"); }

# lab_uboot NAME: whether the board boots through U-Boot in the lab.
lab_uboot() { [ -n "$(lab_board_says "$1" BOARD_UBOOT_DEB)" ]; }

# lab_boards_addr HOST: the lab host's address on its boards' network.
lab_boards_addr() { printf '%s.%s.1' "$LAB_BOARDS_NET" "${LAB_ADDR[$1]##*.}"; }

# lab_tap NAME, lab_mac NAME: the board's tap on its host, and its
# Ethernet address.
lab_tap() { printf 'tap%s' "${LAB_OUTLET[$1]}"; }
lab_mac() { printf '52:54:00:78:%02x:%02x' "${LAB_ADDR[${LAB_HOST[$1]}]##*.}" "${LAB_OUTLET[$1]}"; }

# lab_ser2net_config HOST: ser2net's configuration on HOST, a connection
# per board from its console's TCP port (telnet with RFC 2217, so that a
# client may set the line) to the board's console device.
lab_ser2net_config() {
    local name
    printf '%%YAML 1.1\n---\n# Made by tools/lab from %s.\n' "${LAB_TABLE#"$BOARD_ROOT"/}"
    for name in $(lab_boards_of "$1"); do
        printf 'connection: &%s\n' "$name"
        printf '  accepter: telnet(rfc2217),tcp,%s,%s\n' "${LAB_ADDR[$1]}" "${LAB_CONSOLE_PORT[$name]}"
        printf '  connector: serialdev,%s/console,115200n81,local\n' "$(lab_board_dir "$name")"
        printf '  options:\n    kickolduser: true\n'
    done
}

# lab_pdudaemon_config HOST: PDUDaemon's configuration on HOST: one PDU
# named after the host, whose port N switches the host's Nth board.
lab_pdudaemon_config() {
    local outlet="$BOARD_DIR/lab-outlet $LAB_STATE/$1"
    cat <<EOF
{
  "daemon": {"hostname": "${LAB_ADDR[$1]}", "port": $LAB_PDU_PORT, "logging_level": "INFO", "listener": "http"},
  "pdus": {
    "$1": {"driver": "localcmdline", "cmd_on": "$outlet on %s", "cmd_off": "$outlet off %s"}
  }
}
EOF
}

# lab_exporter_config HOST: labgrid-exporter's resources on HOST, a group
# per board: its console on ser2net and its outlet on PDUDaemon.
lab_exporter_config() {
    local name
    # No comment line: labgrid reads the file as a Jinja2 template, where a
    # line starting with "#" is a statement.
    for name in $(lab_boards_of "$1"); do
        cat <<EOF
$name:
  NetworkSerialPort:
    host: ${LAB_ADDR[$1]}
    port: ${LAB_CONSOLE_PORT[$name]}
    speed: 115200
  PDUDaemonPort:
    host: ${LAB_ADDR[$1]}:$LAB_PDU_PORT
    pdu: $1
    index: ${LAB_OUTLET[$name]}
EOF
        lab_uboot "$name" || continue
        cat <<EOF
  TFTPProvider:
    internal: $LAB_TFTP_ROOT/$LAB_TFTP_DIR/$name/
    external: $LAB_TFTP_DIR/$name/
EOF
    done
}

# lab_place_commands NAME: the labgrid-client commands that make the
# board's place: its host's group of it, and a tag that reservations name.
lab_place_commands() {
    printf 'labgrid-client -p %s create\n' "$1"
    printf 'labgrid-client -p %s add-match %s/%s/*\n' "$1" "${LAB_HOST[$1]}" "$1"
    printf 'labgrid-client -p %s set-tags board=%s\n' "$1" "$1"
}

# lab_prepare_board NAME [PRELUDE]: the board's image (Merovane in it, a
# shell on the console, after the shell commands PRELUDE) and, in
# lab_board_dir's qemu.cmd, BOARD_QEMU_CMD: its QEMU held in reset until its
# outlet lets it run, its console on a pseudo-terminal and its monitor on a
# socket for the outlet.
lab_prepare_board() {
    local name=$1 prelude=${2:-} dir dut=null
    dir=$(lab_board_dir "$name")
    board_prepare "${LAB_BOARD[$name]}" || exit 2
    mkdir -p "$dir"
    board_pack "$dir" || exit 2
    # The prompt a Debian image's root shell shows, as board.yaml expects;
    # the console by its ttyS0 name, which every board's guest gives it.
    board_initrd "$dir" "$prelude export PS1='root@$name:~# '; while :; do setsid sh -c 'exec sh -i <>/dev/ttyS0 >&0 2>&1'; done"
    rm -rf "$dir/root"
    [ "${LAB_PLUG[$name]}" = none ] || dut=socket,path=$dir/plug.sock
    if [ -n "$BOARD_UBOOT_DEB" ]; then
        # What the engine loads over TFTP, from where a lab keeps its
        # builds: kernel, device tree and the image as a ramdisk.
        board_ensure_uboot
        cp "$BOARD_KERNEL" "$dir/vmlinuz"
        cp "$BOARD_DTB" "$dir/board.dtb"
        gzip -c "$dir/initrd.cpio" >"$dir/ramdisk.cpio.gz"
        board_qemu_command "$dir" pty "$dut" uboot
        BOARD_QEMU_CMD+=(-nic "tap,ifname=$(lab_tap "$name"),script=no,downscript=no,model=$BOARD_NIC,mac=$(lab_mac "$name")")
    else
        board_qemu_command "$dir" pty "$dut"
    fi
    # Without -no-reboot: a reset from the outlet resets the board, where
    # with it QEMU would end.
    BOARD_QEMU_CMD+=(-S -monitor "unix:$dir/monitor.sock,server=on,wait=off")
    declare -p BOARD_QEMU_CMD >"$dir/qemu.cmd"
    ln -sfn "$dir" "$LAB_STATE/${LAB_HOST[$name]}/outlet-${LAB_OUTLET[$name]}"
}

# lab_fill FILE SED...: the farm's FILE as a lab fills it in: the sed
# expressions applied to its FILL IN lines and to no other line, as a user
# who copies it does (tests/lab/farm-copies checks it).
lab_fill() {
    local file=$1 expression program=""
    shift
    for expression in "$@"; do program+="/FILL IN/$expression"$'\n'; done
    sed -e "$program" "$BOARD_ROOT/$file"
}

# The lab's boards boot all at once on a machine's few cores, far slower
# than a board of their own: the Orange Pi took 16 s alone and 115 s on 2
# cores beside 12 others, and past 90 s in labgrid.  So a boot has 300 s
# to reach the shell in labgrid and 8 minutes in LAVA, which types "#" at
# a board still silent past half its time-out and then takes the extra
# prompts that come back for the answers to the test's commands.  BOOT
# "own" keeps the farm file's time, for a board that never boots.
LAB_LABGRID_BOOT=300 LAB_LAVA_BOOT=8

# The folder where the labgrid suite of a board that boots through U-Boot
# finds the board's images: the board's own folder, mounted there for that
# suite alone.  The lab's hosts share this machine's files, so at the
# board's own path labgrid would find each image on the exporter's host
# already (as on a shared NFS) and link to it where the TFTP server may not
# read; here it copies them over SSH, as to a host of its own.
LAB_IMAGES=/mnt

# lab_bootargs NAME: the kernel arguments of a board that boots through
# U-Boot: its console and what its image needs.
lab_bootargs() {
    (
        board_arch "${LAB_BOARD[$1]}"
        printf 'console=%s,115200 %s' "${BOARD_TTYS%% *}" "$(board_kernel_args)"
    )
}

# lab_labgrid_env NAME FILE [SECONDS [BOOT]]: the board's labgrid
# environment, farm/labgrid/board.yaml or, for a board that boots through
# U-Boot, uboot-board.yaml, sending FILE, with SECONDS as the time limit if
# given and BOOT seconds for each wait of its boot (LAB_LABGRID_BOOT unless
# given).
lab_labgrid_env() {
    local file=farm/labgrid/board.yaml boot=${4:-$LAB_LABGRID_BOOT} extra=()
    [ "$boot" = own ] || extra+=("s|^\(        login_timeout: \)[0-9]*|\1$boot|" "s|^\(        boot_timeout: \)[0-9]*|\1$boot|")
    if lab_uboot "$1"; then
        file=farm/labgrid/uboot-board.yaml
        extra+=("s|^\(  kernel: *\)[^ ]*|\1$LAB_IMAGES/vmlinuz|" "s|^\(  dtb: *\)[^ ]*|\1$LAB_IMAGES/board.dtb|"
            "s|^\(  ramdisk: *\)[^ ]*|\1$LAB_IMAGES/ramdisk.cpio.gz|"
            "s|^\(  - \)ubootstrategy.py|\1$BOARD_ROOT/farm/labgrid/ubootstrategy.py|"
            "s|^\(        bootargs: \)'[^']*'|\1'$(lab_bootargs "$1")'|")
        [ "$(lab_board_says "$1" BOARD_UBOOT_NEEDS_MAC)" = no ] ||
            extra+=("s|^\(        init_commands: \)\[\]|\1['setenv ethaddr $(lab_mac "$1")']|")
    fi
    lab_fill "$file" "s|^\(  merovane_file: *\)'[^']*'|\1'$2'|" \
        "s|^\(  merovane_timeout: *\)'[^']*'|\1'${3:-}'|" "${extra[@]}"
}
