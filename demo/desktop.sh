# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with demo/run
# The X displays: the session's, with a desktop on it, and the client's. And their pictures.

size=1024x768
declare -A display=() # display number by name: desktop, client

# Abstract sockets only and no lock file: nothing appears in /tmp.
start_displays() {
    local name cookie
    stage display
    cookie=$(mcookie)
    # The server takes every cookie of the file, whatever display it is filed under.
    : >"$XAUTHORITY"
    xauth -q add :0 . "$cookie"
    for name in desktop client; do
        start_needed "$name display" Xvfb -displayfd 3 -nolock -nolisten tcp -nolisten unix \
            -noreset -auth "$XAUTHORITY" -screen 0 "${size}x24" 3>"$work/display.$name"
        wait_until 20 test -s "$work/display.$name" || fail "Xvfb does not start"
        display[$name]=$(<"$work/display.$name")
        xauth -q add ":${display[$name]}" . "$cookie"
    done
    reached "X servers :${display[desktop]} for the desktop, :${display[client]} for the client"
}

# Programs that cannot start others: with --stay, whoever has the password may use them.
start_desktop() {
    stage desktop
    local DISPLAY=:${display[desktop]}
    export DISPLAY
    start_needed jwm jwm -f "$here/desktop.jwmrc"
    show xclock -geometry 200x200+780+40
    show xlogo -geometry 200x140+780+300
    show xeyes -geometry 200x120+780+500
    show xcalc -geometry 210x310+490+400 \
        -xrm "XCalc*ti.button3.label: sqrt" -xrm "XCalc*ti.button3.font: fixed"
    show xterm -geometry 66x17+30+40 -fa "DejaVu Sans Mono" -fs 11 -bg "#10222f" -fg "#d8e6f0" \
        -ut -e cat "$here/welcome.txt" -
    wait_until 30 desktop_settled || fail "the desktop has not been drawn"
    reached "a window manager and some programs have drawn it"
}

# show PROGRAM ARGUMENTS...: starts an X program, and waits until its window is there.
show() {
    start "$1" "$1" -title "$1" "${@:2}"
    wait_until 20 window_there "$1" || fail "$1 shows no window"
}

window_there() { xwininfo -name "$1" >/dev/null 2>&1; }

# capture NAME: a picture of the whole display, in $work/NAME.png
capture() {
    DISPLAY=:${display[$1]} import -window root "png:$work/$1.png"
}

# Drawn, and not being drawn any more.
desktop_settled() {
    capture desktop
    local previous=${drawn-}
    drawn=$(identify -format '%# %k' "$work/desktop.png")
    ((${drawn#* } > 50)) && [[ $drawn == "$previous" ]]
}

# Whether the client shows the desktop. The way there is lossy: at most one pixel in a hundred
# may be off by more than a tenth. (Measured: one in a thousand; a screen without the picture
# is off nearly everywhere.)
client_shows_desktop() {
    local width=${size%x*} height=${size#*x}
    capture desktop
    capture client
    differing=$(compare -metric AE -fuzz 10% "$work/desktop.png" "$work/client.png" null: 2>&1) ||
        (($? == 1)) || fail "the pictures cannot be compared: $differing"
    ((differing * 100 <= width * height))
}

client_shows_nothing() {
    capture client
    (($(identify -format %k "$work/client.png") == 1))
}
