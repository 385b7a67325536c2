# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the stages
# A machine's desktop: lightdm with Xvfb as its X server, log-ins, and RDP clients of the trial.

# There is no screen and no virtual terminal: Xvfb takes the X server's place, and the sessions
# are told of no terminal.
prepare_lightdm() {
    local service account
    cat >/usr/local/bin/xvfb-as-x <<'EOF'
#!/bin/bash
# What lightdm passes besides, Xvfb does not know.
arguments=()
while (($#)); do
    case $1 in
    -seat | -background) shift ;;
    vt* | -novtswitch | -sharevts) ;;
    *) arguments+=("$1") ;;
    esac
    shift
done
exec /usr/bin/Xvfb "${arguments[@]}" -screen 0 1024x768x24
EOF
    chmod +x /usr/local/bin/xvfb-as-x
    mkdir -p /etc/lightdm/lightdm.conf.d
    configure_lightdm
    echo XDG_VTNR >/etc/security/no-vt.conf
    for service in lightdm lightdm-autologin lightdm-greeter; do
        sed -i '0,/^session/s//session required pam_env.so readenv=0 conffile=\/etc\/security\/no-vt.conf\n&/' \
            "/etc/pam.d/$service"
    done
    for account in alice bob; do
        mkdir -p "/home/$account/.config/openbox"
        cat >"/home/$account/.config/openbox/autostart" <<EOF
xsetroot -solid '$([[ $account == alice ]] && echo '#20507a' || echo '#7a3020')'
xlogo -geometry 240x240+720+60 &
xterm -geometry 70x20+40+60 -bg '#10222f' -fg '#d8e6f0' -e 'id; cat /etc/os-release; sleep infinity' &
setsid sleep 100000 &
EOF
        chown -R "$account:" "/home/$account/.config"
    done
}

# configure_lightdm [USER]: logs him in, or shows the greeter.
configure_lightdm() {
    cat >/etc/lightdm/lightdm.conf.d/90-trial.conf <<-EOF
	[LightDM]
	logind-check-graphical=false
	[Seat:*]
	type=local
	xserver-command=/usr/local/bin/xvfb-as-x
	user-session=openbox
	${1:+autologin-user=$1}
	autologin-user-timeout=0
	EOF
}

log_in() {
    configure_lightdm "$1"
    systemctl restart lightdm
    wait_until 30 session_stands "$1" || fail "$1 is not logged in: $(loginctl --no-legend list-sessions)"
    display[$1]=$(session_fact "$(session_of "$1")" Display)
    display[$1]=${display[$1]#:}
    authority[$1]=/run/lightdm/root/:${display[$1]}
    display[desktop]=${display[$1]} authority[desktop]=${authority[$1]}
    wait_until 30 desktop_settled 4 || fail "the desktop has not been drawn"
}

# session_of USER: the id of his newest graphical session, or nothing.
session_of() {
    local id
    for id in $(loginctl --no-legend list-sessions | awk -v user="$1" '$3 == user { print $1 }' | sort -rn); do
        [[ $(session_fact "$id" Type) != x11 ]] || { echo "$id" && return; }
    done
}

session_fact() { loginctl show-session --value --property "$2" "$1"; }

session_stands() {
    local id
    id=$(session_of "$1")
    [[ -n $id && $(session_fact "$id" State) == active ]]
}

greeter_stands() {
    local id
    for id in $(loginctl --no-legend list-sessions | awk '{ print $1 }'); do
        [[ $(session_fact "$id" Class) != greeter ]] || return 0
    done
    return 1
}

# start_session TYPE COMMAND...: a session of Alice's of this type, without a display manager.
start_session() {
    systemd-run --quiet --collect --unit=trial-session --uid=alice --property=PAMName=login \
        --setenv=XDG_SESSION_TYPE="$1" --setenv=XDG_SESSION_CLASS=user "${@:2}"
}

set_locked_hint() {
    busctl call org.freedesktop.login1 "/org/freedesktop/login1/session/$(session_path alice)" \
        org.freedesktop.login1.Session SetLockedHint b "$1"
}

# The last element of a session's object path: a digit in front is escaped.
session_path() {
    local id
    id=$(session_of "$1")
    printf '_%x%s' "'${id:0:1}" "${id:1}"
}

x_server() { pgrep -f '^/usr/bin/Xvfb .*/run/lightdm/root'; }

# configure KEYS: the service's configuration, besides the defaults.
configure() {
    echo "{${1-}}" >/etc/vorl/vorl_session.json.new
    mv /etc/vorl/vorl_session.json.new /etc/vorl/vorl_session.json
}

# says TEXT: whether the status has it.
says() { [[ $(vorl_session status 2>&1 || true) == *"$1"* ]]; }

listening() { ss -Hltn sport = :3389 | grep -q .; }
closed() { not listening; }

audited() { journalctl -q -t vorl_session -o cat --grep "$1" >/dev/null 2>&1; }

status_text_ends() { [[ $(systemctl show --value --property StatusText vorl_session) == *"$1" ]]; }

# open_client NAME PASSWORD: on the display NAME.
open_client() {
    wait_until 20 listening || fail "no port: $(vorl_session status)"
    on "$1" start "$1-client" "$rdp_client" "/v:$client_host" "/u:$user" "/p:$2" /sec:nla /cert:ignore \
        "/size:$size" /f
}

client_gone() { not running "$1-client"; }

# Somebody who stays silent. He is turned away as long as his address has failed too often.
stranger_stays() {
    exec {stranger}<>/dev/tcp/127.0.0.1/3389
    wait_until 3 says "does not see the picture" || { exec {stranger}>&- && return 1; }
}

close_client() {
    stop "$1-client"
}


# shows NAME: whether the client on that display shows the desktop. See client_shows_desktop.
shows() {
    display[client]=${display[$1]} authority[client]=${authority[$1]}
    client_shows_desktop
}

expect_picture_on() {
    local file
    file=$work/${stage//[^A-Za-z0-9]/-}-$1.png
    display[desktop]=${display[$2]} authority[desktop]=${authority[$2]}
    wait_until 25 shows "$1" || { cp "$work/client.png" "$file" && fail "$differing of the pixels differ; see $file"; }
    cp "$work/client.png" "$file"
    wait_until 5 says "sees the picture" || fail "it is not counted: $(vorl_session status)"
    say "   the desktop, except for $differing pixels: ${file##*/}"
}

expect_no_picture_on() {
    wait_until 20 refused "$1" || fail "the client is still running"
    stop "$1-client"
    ((status != 0)) || fail "the client reports success"
}

refused() {
    not shows "$1" || fail "a wrong password shows the desktop"
    client_gone "$1"
}

session_exposure() {
    systemd-analyze security --no-pager --threshold="$1" vorl_session.service >"$work/exposure-$1" ||
        fail "$(tail -n 1 "$work/exposure-$1")"
    say "   $(tail -n 1 "$work/exposure-$1")"
}
