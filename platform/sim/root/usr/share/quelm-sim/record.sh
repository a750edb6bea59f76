# Sourced by every host simulator: SIM_ROOT is the root the simulator was
# installed in, and record appends what it was asked to the platform's
# event log (one line: UTC time, tool, arguments), as the platform library
# records what it cannot do on a PC.
sim_record() {
    tool=$1
    shift
    log="$SIM_ROOT/var/quelm/platform/events.log"
    mkdir -p "${log%/*}"
    printf '%s %s %s\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" "$tool" "$*" >>"$log"
}

# 0 when the host is the local machine, the only one a simulator answers for.
sim_is_loopback() {
    [ "$1" = 127.0.0.1 ] || [ "$1" = localhost ]
}

# 0 when the text is a decimal number.
sim_is_number() {
    case $1 in '' | *[!0-9]*) return 1 ;; esac
    return 0
}
