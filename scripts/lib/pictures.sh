# shellcheck shell=bash disable=SC2034,SC2154 # shares its variables with the trials
# Pictures of the displays, and what they show. Builds on displays.sh.

# capture NAME: a picture of the whole display, in $work/NAME.png
capture() { on "$1" import -window root "png:$work/$1.png"; }

# desktop_settled COLOURS: drawn, with more colours than these, and not being drawn any more.
desktop_settled() {
    local previous=${drawn-}
    capture desktop
    drawn=$(identify -format '%# %k' "$work/desktop.png")
    ((${drawn#* } > $1)) && [[ $drawn == "$previous" ]]
}

# Whether the client shows the desktop. The way there is lossy: at most one pixel in a hundred
# may be off by more than a tenth. (Measured: one in a thousand; a screen without the picture
# is off nearly everywhere.)
client_shows_desktop() {
    capture desktop
    capture client
    differing=$(compare -metric AE -fuzz 10% "$work/desktop.png" "$work/client.png" null: 2>&1) ||
        (($? == 1)) || fail "the pictures cannot be compared: $differing"
    ((differing * 100 <= ${size/x/ * }))
}

client_shows_nothing() {
    capture client
    (($(identify -format %k "$work/client.png") == 1))
}
