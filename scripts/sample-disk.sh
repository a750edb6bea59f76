#!/usr/bin/env bash
# Creates a sample USB disk for the NAS service under ROOT/var/mnt/DISK:
# folders, a few small songs, a picture carrying EXIF data (written byte by
# byte here) and a playlist.
#   sample-disk.sh ROOT [DISK]      (DISK defaults to usb1)
# An existing disk folder is left as it is.
set -euo pipefail
root=$1 disk=${2:-usb1}
top=$root/var/mnt/$disk
[ -e "$top" ] && exit 0

mkdir -p "$top/Music/Album" "$top/Pictures" "$top/Documents" "$top/.playlists"

# Songs: an ID3v2 header and a little padding are enough for the listings
# and the downloads.
song() { # path title
  { printf 'ID3\003\000\000\000\000\000\000'; printf '%s' "$2"; head -c 2048 /dev/zero; } > "$1"
}
song "$top/Music/Album/01 Opening.mp3" "Opening"
song "$top/Music/Album/02 Closing.MP3" "Closing"
song "$top/Music/Interlude.mp3" "Interlude"
song "$top/Music/Live.aac" "Live"
printf 'Shopping list\n- bread\n' > "$top/Documents/notes.txt"

# A JPEG holding only an EXIF block: Make "Quelm" (stored after the IFD)
# and Model "QHG" (inline), little-endian TIFF.
exif_jpeg() {
  printf '\377\330'                                  # start of image
  printf '\377\341\000\064'                          # APP1, 52 bytes
  printf 'Exif\000\000'
  printf 'II\052\000\010\000\000\000'                # TIFF header, IFD0 at 8
  printf '\002\000'                                  # two entries
  printf '\017\001\002\000\006\000\000\000\046\000\000\000'  # Make, ASCII 6 at 38
  printf '\020\001\002\000\004\000\000\000QHG\000'   # Model, ASCII 4 inline
  printf '\000\000\000\000'                          # no next IFD
  printf 'Quelm\000'
  printf '\377\331'                                  # end of image
}
exif_jpeg > "$top/Pictures/camera.jpg"

printf '%s\n' "Music/Album/01 Opening.mp3" "Music/Interlude.mp3" "Music/Album/02 Closing.MP3" \
  > "$top/.playlists/Favourites.m3u"
