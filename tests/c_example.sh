#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds the README's C example
# against the installed copy, through pkg-config and through the CMake
# package, so neither can rot; checks what the installed library exports.
# Usage: c_example.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1
build=$2 prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name libqv.so | head -n1)")

# pkg-config: plain absolute paths into the prefix, the dependencies private.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cflags=$(pkg-config --cflags qv)
test "${cflags%% *}" = "-I$prefix/include/quorvane"
if grep -q '/\.\./' <<<"$cflags"; then echo "unclean include path: $cflags"; exit 1; fi
test "$(echo $(pkg-config --libs qv))" = "-L$libdir -lqv"
pkg-config --print-requires-private qv | grep -qx sqlite3
for example in minimal publisher subscriber follow_dataset; do
  cc -std=c11 -Wall -Werror "$src/examples/$example.c" $(pkg-config --cflags --libs qv) \
     -o "$prefix/$example"
done

# The CMake package.
cmake -S "$src/examples/cmake" -B "$prefix/app" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/app" >/dev/null
test -x "$prefix/app/minimal"

# The installed headers are the public C API; internal ones stay behind.
test -f "$prefix/include/quorvane/qvversion.h"
if grep -rlE 'listRoutesOf|get_executable_path|recv_msg_thread' "$prefix/include/quorvane"; then
  echo "internal declarations in the installed headers"; exit 1
fi
test ! -e "$prefix/include/quorvane/internal"

# The tool and its man page.
LD_LIBRARY_PATH="$libdir" "$prefix/bin/qvtool" --version | grep -q '^qvtool (quorvane) [0-9]'
if command -v help2man >/dev/null; then grep -q "^\.SS watch" "$prefix/share/man/man1/qvtool.1"; fi

# The C API's manual pages: an operation's page is its header's page, which
# shows the operation's contract.
if command -v doxygen >/dev/null; then
  man3="$prefix/share/man/man3"
  page=$(sed -n 's/^\.so man3\///p' "$man3/zq_saveDoubDAValue1.3")
  grep -q '^Saves val and the quality .* Returns 0 when saved' "$man3/$page"
fi

# Only the C API is exported.
extra=$(nm -D --defined-only "$libdir/libqv.so" | awk '{print $3}' | sed 's/@.*//' |
        grep -vE '^(zq_.*|RSHash|initRealSem|locksem|unlocksem)$' || true)
if [ -n "$extra" ]; then
  echo "libqv.so exports more than the C API:"; echo "$extra"; exit 1
fi

# The README shows the example as it stands in examples/minimal.c.
awk '/^```c$/{inside=1; next} /^```$/{inside=0} inside' "$src/README.md" > "$prefix/readme.c"
diff -u "$src/examples/minimal.c" "$prefix/readme.c"
echo "C example builds against the installed library"
