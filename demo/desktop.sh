# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# The two X displays, and what is drawn on the session's.

# Abstract sockets only and no lock file: nothing appears in /tmp.
start_displays() {
    local name
    stage display
    xvfb_options=(-nolock -nolisten unix)
    for name in desktop client; do
        start_display "$name" "$work/$name.xauthority"
    done
    reached "X servers :${display[desktop]} for the desktop, :${display[client]} for the client"
}

# Programs that cannot start others: with --stay, whoever has the password may use them.
start_desktop() {
    stage desktop
    on desktop start_needed jwm jwm -f "$here/desktop.jwmrc"
    show xclock -geometry 200x200+780+40
    show xlogo -geometry 200x140+780+300
    show xeyes -geometry 200x120+780+500
    show xcalc -geometry 210x310+490+400 \
        -xrm "XCalc*ti.button3.label: sqrt" -xrm "XCalc*ti.button3.font: fixed"
    show xterm -geometry 66x17+30+40 -fa "DejaVu Sans Mono" -fs 11 -bg "#10222f" -fg "#d8e6f0" \
        -ut -e cat "$here/welcome.txt" -
    wait_until 30 desktop_settled 50 || fail "the desktop has not been drawn"
    reached "a window manager and some programs have drawn it"
}

# show PROGRAM ARGUMENTS...: starts an X program, and waits until its window is there.
show() {
    on desktop start "$1" "$1" -title "$1" "${@:2}"
    wait_until 20 window_there "$1" || fail "$1 shows no window"
}

window_there() { on desktop xwininfo -name "$1" >/dev/null 2>&1; }
