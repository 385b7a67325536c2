# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the trials
# X displays without a screen, by name: "desktop" is the session's, "client" the RDP client's.
# Builds on processes.sh.

size=1024x768
xvfb_options=()        # beside those below
declare -A display=()  # display number by name
declare -A authority=() # X authority file by name

# start_display NAME FILE [COMMAND...]: starts an X server and puts its cookie into FILE.
# COMMAND runs both as another account.
start_display() {
    local name=$1 file=$2 cookie
    shift 2
    cookie=$(mcookie)
    # The server takes every cookie of the file, whatever display it is filed under.
    "$@" xauth -q -f "$file" add :0 . "$cookie" 2>/dev/null
    start_needed "$name-display" "$@" Xvfb -displayfd 3 -nolisten tcp -noreset -auth "$file" \
        -screen 0 "${size}x24" "${xvfb_options[@]}" 3>"$work/$name.display"
    wait_until 20 test -s "$work/$name.display" || fail "Xvfb does not start"
    display[$name]=$(<"$work/$name.display")
    authority[$name]=$file
    "$@" xauth -q -f "$file" add ":${display[$name]}" . "$cookie"
}

# on NAME COMMAND...: runs the command with this display.
on() { DISPLAY=:${display[$1]} XAUTHORITY=${authority[$1]} "${@:2}"; }
