# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# The processes that the demo starts, how it waits, and how it ends.

declare -A pids=() # by name
started=()         # names in the order of their start
needed=()          # names of those that must not end by themselves

# start NAME COMMAND...: in the background, with its output in $work/NAME.log. A session of
# its own keeps Ctrl-C from it; should this script be killed, the kernel ends it.
start() {
    local name=$1
    shift
    : >"$work/$name.log" # it is there when we return, for whoever wants to follow it
    setsid setpriv --pdeathsig TERM "$@" <&0 >>"$work/$name.log" 2>&1 &
    pids[$name]=$!
    started+=("$name")
}

# start_needed NAME COMMAND...: the same for one that the demo cannot do without.
start_needed() {
    start "$@"
    needed+=("$1")
}

# running NAME. A number may be given to another process as soon as ours has ended.
running() {
    grep -qs "^PPid:[[:space:]]*$$\$" "/proc/${pids[$1]-none}/status"
}

# stop NAME: SIGTERM and a grace of five seconds. $status has the exit status then.
stop() {
    local pid=${pids[$1]-} tenths
    status=0
    [[ -n $pid ]] || return 0
    ! running "$1" || kill -TERM "$pid" || true
    for ((tenths = 0; tenths < 50; ++tenths)); do
        running "$1" || break
        sleep 0.1
    done
    ! running "$1" || kill -KILL "$pid" || true
    wait "$pid" 2>/dev/null || status=$?
    unset "pids[$1]"
}

not() { ! "$@"; }

# wait_until SECONDS COMMAND...: false when the command has not succeeded by then.
wait_until() {
    local limit=$((SECONDS + $1)) name
    shift
    until show_events && "$@"; do
        for name in "${needed[@]}"; do
            running "$name" || fail "the $name has ended by itself"
        done
        ((SECONDS < limit)) || return 1
        sleep 0.1
    done
}

# fail TEXT: the end of the demo, with the last words of everybody who had any.
fail() {
    local log
    say "$1"
    {
        for log in "$work"/*.log "$HOME"/.vorl/*.log; do
            [[ ! -s $log ]] || printf -- '--- %s\n%s\n' "$(basename "$log")" "$(tail -n 40 "$log")"
        done
        echo "demo: FAILED at stage '$stage': $1"
    } >&2
    exit 1
}

clean_up() {
    local index pid
    trap '' INT TERM
    for ((index = ${#started[@]} - 1; index >= 0; --index)); do
        stop "${started[index]}"
    done
    # A daemon that was killed leaves its shadow servers; the path of the socket is ours alone.
    while IFS=/ read -r _ _ pid _; do
        kill -KILL "$pid" 2>/dev/null || true
    done < <(grep -lsa "ipc[-]socket:$work/" /proc/[0-9]*/cmdline)
    rm -rf "$work"
}
