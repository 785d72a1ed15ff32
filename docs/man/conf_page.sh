#!/bin/sh
# Prints the page of the configuration file: usage: conf_page.sh PIMCTL. Its lines come from the commands' table.
set -eu
cd "$(dirname "$0")"
cat pimhostd.conf.5.head
# "### configure vrf NAME" begins a block, "| `line` | help |" is a line of it; what an operator runs is not the file's.
"$1" --syntax | awk '
  /^### configure$/ { print "# LINES OUTSIDE OF BLOCKS\n"; inside = 1; next }
  /^### configure / { sub(/^### configure /, ""); print "# BLOCK " toupper($1) "\n\n_" $0 "_\n"; inside = 1; next }
  /^### / { inside = 0 }
  inside && /^\| `/ {
    gsub(/\\\|/, "\001"); split($0, part, "|"); line = part[2]; help = part[3]
    gsub(/^ *`|` *$/, "", line); gsub(/^ *| *$/, "", help); gsub("\001", "|", line); gsub("\001", "|", help)
    gsub(/[\\*_]/, "\\\\&", line); gsub(/[\\*_]/, "\\\\&", help)
    print "*" line "*\n\t" help ".\n"
  }'
cat pimhostd.conf.5.tail
