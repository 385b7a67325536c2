# shellcheck shell=sh disable=SC2034
# What is right for this machine's Debian release alone. In POSIX sh, because debian/rules reads
# it as well. What users meet of the differences is in vorl_proxy(8), DEBIAN RELEASES.
#
# systemd_dev                     the package that has systemd.pc
# shadow_package, client_package  FreeRDP's shadow server and client for X11
# shadow_server, rdp_client       the programs in them
# pam_helper                      whether PAM checks passwords in a helper, which packaging/pam.conf allows
# configured_path                 "x11rdp:path" of the package: the program, or a link to it
# configured_args                 "x11rdp:args" of the package, in JSON
case $(. /etc/os-release && echo "${VERSION_ID-}") in
12)
    systemd_dev=systemd
    shadow_package=freerdp2-shadow-x11
    client_package=freerdp2-x11
    shadow_server=/usr/bin/freerdp-shadow-cli
    rdp_client=xfreerdp
    pam_helper=no
    # It exits with 23 at what a built-in program gets, and at /max-connections.
    configured_path=$shadow_server
    configured_args='["-auth", "/ipc-socket:%{socket}"]'
    ;;
*)
    systemd_dev=systemd-dev
    shadow_package=freerdp3-shadow-x11
    client_package=freerdp3-x11
    shadow_server=/usr/bin/freerdp-shadow-cli3
    rdp_client=xfreerdp3
    pam_helper=yes
    configured_path=/usr/libexec/vorl/freerdp-shadow-cli
    configured_args='["-auth", "/ipc-socket:%{socket}", "/max-connections:1"]'
    ;;
esac
