#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds the README's C example
# against the installed headers through pkg-config, so the example cannot rot.
# Usage: c_example.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig"
cc -std=c11 -Wall -Werror "$src/examples/minimal.c" $(pkg-config --cflags --libs qv) \
   -o "$prefix/minimal"
test -x "$prefix/minimal"

# The README shows the example as it stands in examples/minimal.c.
awk '/^```c$/{inside=1; next} /^```$/{inside=0} inside' "$src/README.md" > "$prefix/readme.c"
diff -u "$src/examples/minimal.c" "$prefix/readme.c"
echo "C example builds against the installed library"
