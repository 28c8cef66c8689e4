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

# lab_lava_dictionary NAME: the board's device dictionary: its console on
# its host's ser2net, its power through pduclient to its host's PDUDaemon.
lab_lava_dictionary() {
    local host=${LAB_HOST[$1]} addr
    addr=${LAB_ADDR[$host]}
    local pdu="pduclient --http --daemon $addr --hostname $host --port ${LAB_OUTLET[$1]} --command"
    cat <<EOF
{% extends '$LAB_LAVA_TYPE.jinja2' %}
{% set connection_command = 'telnet $addr ${LAB_CONSOLE_PORT[$1]}' %}
{% set power_on_command = '$pdu on' %}
{% set power_off_command = '$pdu off' %}
{% set hard_reset_command = '$pdu reboot' %}
EOF
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
User.objects.filter(username="$LAB_LAVA_USER").delete()
EOF
    for name in "${LAB_NAMES[@]}"; do rm -f "$LAB_LAVA_ETC/devices/$(lab_lava_device "$name").jinja2"; done
    rm -f "$LAB_LAVA_ETC/device-types/$LAB_LAVA_TYPE.jinja2"
}

# lab_lava_job NAME WHO FILE [SECONDS [BOOT]]: farm/lava/board-job.yaml for
# the board NAME, named for the user WHO, picking the board by its tag,
# sending FILE in each case, with SECONDS as the time limit if given (""
# for none) and BOOT minutes for its boot (LAB_LAVA_BOOT unless given).
lab_lava_job() {
    local device limit="" boot=${5:-$LAB_LAVA_BOOT} expressions=()
    device=$(lab_lava_device "$1")
    [ -z "${4:-}" ] || limit="-t $4 "
    [ "$boot" = own ] || expressions+=("s|^\(      timeout: \){minutes: 2}|\1{minutes: $boot}|")
    lab_fill farm/lava/board-job.yaml "s|^job_name: [^#]*|job_name: Merovane on the lab's $1 ($2)  |" \
        "s|^tags: \[\]|tags: [$device]|" "s|-f /samples/pattern-1k.bin|-f $3|" \
        "s|merovane_case \([a-z-]*\) |merovane_case \1 $limit|" "${expressions[@]}"
}
