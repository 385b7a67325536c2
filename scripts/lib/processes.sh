# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the trials
# Processes of a trial: start, stop, wait for a condition. Whoever sources this sets $work, a
# directory for logs and pictures, and defines fail TEXT, which reports and exits.

declare -A pids=() # process id by name
started=()         # names in the order of their start
needed=()          # names of those that must not end by themselves

# start NAME COMMAND...: in the background, with its output in $work/NAME.log. A session of
# its own keeps Ctrl-C from it; should this script be killed, the kernel ends it.
start() {
    local name=$1
    shift
    : >"$work/$name.log" # it is there when we return, for whoever follows it
    setsid setpriv --pdeathsig TERM "$@" <&0 >>"$work/$name.log" 2>&1 &
    pids[$name]=$!
    started+=("$name")
}

# start_needed NAME COMMAND...: the same; if it ends by itself, the trial fails.
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

# stop_all: the last one started first.
stop_all() {
    local index
    for ((index = ${#started[@]} - 1; index >= 0; --index)); do
        stop "${started[index]}"
    done
}

not() { ! "$@"; }

# Called while a trial waits. A trial that shows something meanwhile defines it anew.
on_wait() { :; }

# wait_until SECONDS COMMAND...: false when the command has not succeeded by then.
wait_until() {
    local limit=$((SECONDS + $1)) name
    shift
    until on_wait && "$@"; do
        for name in "${needed[@]}"; do
            running "$name" || fail "the $name has ended by itself: $(tail -n 3 "$work/$name.log")"
        done
        ((SECONDS < limit)) || return 1
        sleep 0.1
    done
}

# show_logs LINES FILE...: the last lines of each file that has any.
show_logs() {
    local lines=$1 log
    shift
    for log; do
        [[ ! -s $log ]] || printf -- '--- %s\n%s\n' "${log##*/}" "$(tail -n "$lines" "$log")"
    done
}
