# Shell helpers for the jobs that run on the emulated board (sourced by /init).

# The settings ttyS2 had at boot, so that every CI case starts from the same
# device state, whatever the case before it left behind.
BOARD_PRISTINE=$(stty -F /dev/ttyS2 -g)

# board_facts: the serial driver's own view of ttyS2, for the host to build
# the expected report from (the driver, not the tool, is the authority).
board_facts() {
    d=/sys/class/tty/ttyS2
    echo "@@facts uartclk=$(cat $d/uartclk) fifo=$(cat $d/xmit_fifo_size)" \
        "irq=$(cat $d/irq) flags=$(cat $d/flags) divisor=$(cat $d/custom_divisor)" \
        "stty=$BOARD_PRISTINE" >/dev/ttyS1
}

# board_case NAME ARG...: one run of Merovane from the boot-time device
# settings, reported as a delimited record with exact stdout and stderr.
board_case() {
    name=$1
    shift
    stty -F /dev/ttyS2 "$BOARD_PRISTINE"
    before=$(stty -F /dev/ttyS2 -g)
    # A case whose bytes never come back would otherwise block the whole run.
    timeout -s KILL "${BOARD_CASE_TIMEOUT:-60}" Merovane "$@" >/tmp/stdout 2>/tmp/stderr
    status=$?
    after=$(stty -F /dev/ttyS2 -g)
    {
        echo "@@case $name"
        echo "@@status $status"
        echo "@@stty-before $before"
        echo "@@stty-after $after"
        echo "@@stdout $(base64 -w 0 /tmp/stdout)"
        echo "@@stderr $(base64 -w 0 /tmp/stderr)"
        echo "@@end"
    } >/dev/ttyS1
}
