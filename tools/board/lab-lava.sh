# shellcheck shell=bash
# LAVA in the lab of tools/lab: lava-server on the lab's side, a lava-worker
# on each lab host, each board a device of the type merovane-lab-board
# whose dictionary comes from the table.  Source after lab.sh.

LAB_LAVA_URL=http://$LAB_SIDE_ADDR:8097
LAB_LAVA_USER=merovane-lab
LAB_LAVA_TYPE=merovane-lab-board
LAB_LAVA_ETC=/etc/lava-server/dispatcher-config

# The lab's names in lava-server's database, apart from any of the
# machine's own: a board's device (and the tag its jobs ask for), a host's
# worker.
lab_lava_device() { printf 'merovane-lab-%s' "$1"; }
lab_lava_worker() { printf 'merovane-lab-host-%s' "$1"; }

# lab_lava_type NAME: the board's device type: LAVA's own for a board that
# boots through U-Boot, as its board file names it, else the lab's.
lab_lava_type() {
    local type
    type=$(lab_board_says "$1" BOARD_LAVA_TYPE)
    lab_uboot "$1" && [ -n "$type" ] || type=$LAB_LAVA_TYPE
    printf '%s' "$type"
}

# lab_lava_dictionary NAME: the board's device dictionary: its console on
# its host's ser2net, its power through pduclient to its host's PDUDaemon;
# for a board that boots through U-Boot, also its Ethernet address, the
# kernel arguments its image needs, and what its board file sets of LAVA's
# type.
lab_lava_dictionary() {
    local host=${LAB_HOST[$1]} addr
    addr=${LAB_ADDR[$host]}
    local pdu="pduclient --http --daemon $addr --hostname $host --port ${LAB_OUTLET[$1]} --command"
    cat <<EOF
{% extends '$(lab_lava_type "$1").jinja2' %}
{% set connection_command = 'telnet $addr ${LAB_CONSOLE_PORT[$1]}' %}
{% set power_on_command = '$pdu on' %}
{% set power_off_command = '$pdu off' %}
{% set hard_reset_command = '$pdu reboot' %}
EOF
    lab_uboot "$1" || return 0
    (
        board_arch "${LAB_BOARD[$1]}"
        printf "{%% set uboot_mac_addr = '%s' %%}\n" "$(lab_mac "$1")"
        [ "$BOARD_UBOOT_NEEDS_MAC" = no ] || printf '{%% set uboot_set_mac = true %%}\n'
        printf "{%% set base_kernel_args = '%s' %%}\n" "$(board_kernel_args)"
        local var
        for var in "${BOARD_LAVA_VARS[@]}"; do printf '{%% set %s %%}\n' "$var"; done
    )
}

# What the lab writes into the description of a device type it adds, so
# that it removes that type and no other: a lava-server that has LAVA's own
# types for the boards already keeps them.
LAB_LAVA_MARK="Added by Merovane's tools/lab."
LAB_LAVA_DISPATCHERS=/etc/lava-server/dispatcher.d

# lab_lava_add DIR: the lab in lava-server's database: the lab's user and
# its token (DIR/token), a worker per host and its details (DIR/HOST.worker),
# the device types of the lab's boards (each added unless it is there
# already), and a device per board with its tag.  Each through the command
# a lab's admin types, all of them run by one management shell: every
# lava-server command starts Django afresh, 2 s apiece, and the lab needs
# some forty.
lab_lava_add() {
    local dir=$1 name host device worker types=()
    for name in "${LAB_NAMES[@]}"; do types+=("$(lab_lava_type "$name")"); done
    {
        printf -- '-\tusers\tadd\t%s\t--superuser\t--staff\n' "$LAB_LAVA_USER"
        printf '%s\ttokens\tadd\t--user\t%s\n' "$dir/token" "$LAB_LAVA_USER"
        for host in "${LAB_HOSTS[@]}"; do
            worker=$(lab_lava_worker "$host")
            printf -- '-\tworkers\tadd\t%s\n' "$worker"
            printf '%s\tworkers\tdetails\t%s\n' "$dir/$host.worker" "$worker"
        done
        for name in "${LAB_NAMES[@]}"; do
            device=$(lab_lava_device "$name")
            printf -- "-\tdevice-tags\tcreate\t%s\tthe lab's board %s\n" "$device" "$name"
            # The name before --tags, which takes every word after it.
            printf -- '-\tdevices\tadd\t%s\t--device-type\t%s\t--worker\t%s\t--tags\t%s\n' "$device" \
                "$(lab_lava_type "$name")" "$(lab_lava_worker "${LAB_HOST[$name]}")" "$device"
        done
    } >"$dir/commands"
    lava-server manage shell -v 0 <<EOF
import contextlib
import io
import os
import sys
from django.core.management import call_command
from lava_scheduler_app.models import DeviceType

for name in sorted(set("${types[*]}".split())):
    DeviceType.objects.get_or_create(name=name, defaults={"description": "$LAB_LAVA_MARK"})
# Tokens go to files that only root reads.
os.umask(0o077)
for line in open("$dir/commands"):
    out, *command = line.rstrip("\n").split("\t")
    said = io.StringIO()
    try:
        with contextlib.redirect_stdout(said):
            call_command(*command, stdout=said)
    except (Exception, SystemExit) as error:
        sys.exit(f"lava-server manage {' '.join(command)}: {error}")
    if out != "-":
        with open(out, "w") as file:
            file.write(said.getvalue())
EOF
}

# lab_lava_dispatchers: each worker's own settings: the address its boards
# reach it at, which LAVA puts in their U-Boot commands as {SERVER_IP}.
lab_lava_dispatchers() {
    local host
    mkdir -p "$LAB_LAVA_DISPATCHERS"
    for host in "${LAB_HOSTS[@]}"; do
        printf '# Made by tools/lab.\ndispatcher_ip: %s\n' "$(lab_boards_addr "$host")" \
            >"$LAB_LAVA_DISPATCHERS/$(lab_lava_worker "$host").yaml"
    done
}

# lab_lava_forget: nothing of the lab left in lava-server's database or
# its configuration: the lab user's jobs (and their logs), its tokens, the
# devices, their tags, the workers, the device type and the user.
lab_lava_forget() {
    local names=() name host
    for name in "${LAB_NAMES[@]}"; do names+=("$(lab_lava_device "$name")"); done
    for host in "${LAB_HOSTS[@]}"; do names+=("$(lab_lava_worker "$host")"); done
    lava-server manage shell -v 0 <<EOF
import shutil
from django.contrib.auth.models import User
from lava_scheduler_app.models import Device, DeviceType, Tag, TestJob, Worker

names = "${names[*]}".split()
jobs = TestJob.objects.filter(submitter__username="$LAB_LAVA_USER")
for job in jobs:
    shutil.rmtree(job.output_dir, ignore_errors=True)
jobs.delete()
Device.objects.filter(hostname__in=names).delete()
Tag.objects.filter(name__in=names).delete()
Worker.objects.filter(hostname__in=names).delete()
DeviceType.objects.filter(name="$LAB_LAVA_TYPE").delete()
DeviceType.objects.filter(description="$LAB_LAVA_MARK").delete()
User.objects.filter(username="$LAB_LAVA_USER").delete()
EOF
    for name in "${LAB_NAMES[@]}"; do rm -f "$LAB_LAVA_ETC/devices/$(lab_lava_device "$name").jinja2"; done
    rm -f "$LAB_LAVA_ETC/device-types/$LAB_LAVA_TYPE.jinja2"
    for host in "${LAB_HOSTS[@]}"; do rm -f "$LAB_LAVA_DISPATCHERS/$(lab_lava_worker "$host").yaml"; done
}

# lab_lava_job NAME WHO FILE [SECONDS [BOOT]]: farm/lava/board-job.yaml for
# the board NAME, named for the user WHO, picking the board by its tag,
# sending FILE in each case, with SECONDS as the time limit if given (""
# for none) and BOOT minutes for its boot (LAB_LAVA_BOOT unless given).
# A board that boots through U-Boot has farm/lava/uboot-job.yaml, its
# files from where lab_prepare_board made them.
lab_lava_job() {
    local device limit="" file=farm/lava/board-job.yaml dir boot=${5:-$LAB_LAVA_BOOT} extra=()
    device=$(lab_lava_device "$1")
    [ -z "${4:-}" ] || limit="-t $4 "
    [ "$boot" = own ] || extra+=("s|^\(      timeout: \){minutes: 2}|\1{minutes: $boot}|")
    if lab_uboot "$1"; then
        file=farm/lava/uboot-job.yaml dir=$(lab_board_dir "$1")
        extra+=("s|^device_type: [^#]*|device_type: $(lab_lava_type "$1")  |"
            "s|url: https://images.example.com/zImage|url: file://$dir/vmlinuz|"
            "s|url: https://images.example.com/board.dtb|url: file://$dir/board.dtb|"
            "s|url: https://images.example.com/ramdisk.cpio.gz|url: file://$dir/ramdisk.cpio.gz|")
    fi
    lab_fill "$file" "s|^job_name: [^#]*|job_name: Merovane on the lab's $1 ($2)  |" \
        "s|^tags: \[\]|tags: [$device]|" "s|-f /samples/pattern-1k.bin|-f $3|" \
        "s|merovane_case \([a-z-]*\) |merovane_case \1 $limit|" "${extra[@]}"
}
