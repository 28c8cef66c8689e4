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
    board_qemu_command "$dir" pty "$dut"
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

# lab_labgrid_env FILE [SECONDS [BOOT]]: farm/labgrid/board.yaml sending
# FILE, with SECONDS as the time limit if given and BOOT seconds to the
# shell (LAB_LABGRID_BOOT unless given).
lab_labgrid_env() {
    local boot=${3:-$LAB_LABGRID_BOOT} expressions=()
    [ "$boot" = own ] || expressions+=("s|^\(        login_timeout: \)[0-9]*|\1$boot|")
    lab_fill farm/labgrid/board.yaml "s|^\(  merovane_file: *\)'[^']*'|\1'$1'|" \
        "s|^\(  merovane_timeout: *\)'[^']*'|\1'${2:-}'|" "${expressions[@]}"
}
