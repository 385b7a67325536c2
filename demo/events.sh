# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# What is shown: the demo's own stages, the bus traffic that the session service prints and
# the daemon's journal records, in one stream by time, each line with where it comes from.

events=() # every bus and journal line so far, without its time
mark=0    # the first of them that seen() looks at
began=${EPOCHREALTIME/./}
stage=start
bold=
plain=
[[ ! -t 1 ]] || bold=$'\e[1m' plain=$'\e[m'

# stage NAME: what comes next. A failure is reported under this word.
stage() { stage=$1; }

# reached TEXT: the stage has been passed; TEXT says what has been seen.
reached() {
    show_events
    print_line "${EPOCHREALTIME/./}" stage "$stage: $1"
}

say() {
    show_events
    print_line "${EPOCHREALTIME/./}" demo "$1"
}

# Called by wait_until() before each look at its condition.
on_wait() { show_events; }

# show_events: prints what the bus and the journal have to say since the last call.
show_events() {
    local time source text
    [[ -v service_output || ! -v pids[service] ]] || exec {service_output}<"$work/service.log"
    while read -r time source text; do
        events+=("$text")
        print_line "$time" "$source" "$text"
    done < <({ bus_events && journal_events; } | sort -s -n -k 1,1)
}

# seen TEXT: whether an event since the mark contains it; the event is then in $event.
seen() {
    for event in "${events[@]:mark}"; do
        [[ $event == *"$1"* ]] && return
    done
    return 1
}

# print_line MICROSECONDS SOURCE TEXT: at most 100 columns; our own lines stand out.
print_line() {
    local at=$((($1 - began) / 1000)) line indent='' on=$bold off=$plain
    [[ $2 != bus && $2 != journal ]] || on='' off=''
    while IFS= read -r line; do
        if [[ -z $indent ]]; then
            printf '%4d.%03d  %-7s  %s\n' $((at / 1000)) $((at % 1000)) "$2" "$on$line$off"
            indent=$(printf '%27s' '')
        else
            printf '%s%s\n' "$indent" "$on$line$off"
        fi
    done < <(fmt -s -w 73 -g 73 <<<"$3")
}

# The file's offset is shared with the shell: each call goes on where the last one ended.
bus_events() {
    [[ ! -v service_output ]] || sed -nE 's/^([0-9]+) /\1 bus /p' <&"$service_output"
}

journal_events() {
    local levels=(emerg alert crit error warning notice info debug) line time level text
    [[ -v pids[journal] ]] || return 0
    journalctl --quiet --directory=/run/log/journal --cursor-file="$work/journal.cursor" \
        --output=export SYSLOG_IDENTIFIER=vorl_proxy |
        while IFS= read -r line; do
            case $line in
            _SOURCE_REALTIME_TIMESTAMP=*) time=${line#*=} ;;
            PRIORITY=*) level=${levels[${line#*=}]} ;;
            MESSAGE=*) text=${line#*=} ;;
            '') printf '%s journal %-7s %s\n' "$time" "$level" "$text" ;;
            esac
        done
}
