#!/bin/sh
# Writes the COMMANDS section of qvtool's man page, for help2man --include:
# each command's own help ("qvtool help CMD") as a subsection.
# Usage: man-commands.sh QVTOOL OUTPUT
set -eu
tool=$1
out=$2
{
  echo "[COMMANDS]"
  "$tool" --help | sed -n '/^Commands:/,/^$/p' | awk '/^  [a-z]/ {print $1}' |
  while read -r command; do
    echo ".SS $command"
    echo ".nf"
    # roff: a backslash is written \e, a line may not start with a dot.
    "$tool" help "$command" | sed -e 's/\\/\\e/g' -e 's/^\./\\\&./'
    echo ".fi"
  done
} > "$out"
