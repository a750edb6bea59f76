#!/bin/sh
# A command entry of the sample registry. Its first argument (from the
# entry's "call") is the file it appends to: one line with its arguments
# after that file, each in brackets, then KEYWORD and PARAM as it sees them.
record=$1
shift
line=""
for arg in "$@"; do line="$line[$arg]"; done
printf '%s KEYWORD=[%s] PARAM=[%s] ALL=[%s]\n' "$line" "$KEYWORD" "$PARAM" "$*" >> "$record"
[ "$3" = "exit7" ] && exit 7
exit 0
