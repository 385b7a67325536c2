# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# How the demo ends.

# fail TEXT: ends the demo, and shows the last lines of every log.
fail() {
    say "$1"
    {
        show_logs 40 "$work"/*.log "$work_directory"/*.log
        echo "demo: FAILED at stage '$stage': $1"
    } >&2
    exit 1
}

clean_up() {
    local pid
    trap '' INT TERM
    stop_all
    # A daemon that was killed leaves its shadow servers; only ours have a socket in this directory.
    while IFS=/ read -r _ _ pid _; do
        kill -KILL "$pid" 2>/dev/null || true
    done < <(grep -lsa "ipc[-]socket:$work/" /proc/[0-9]*/cmdline)
    rm -rf "$work"
}
