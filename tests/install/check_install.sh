#!/usr/bin/env bash
# check_install.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build="$1"
here="$2"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix="$tmp/prefix"
cmake --install "$build" --prefix "$prefix" > "$tmp/install.log"
echo "abc" > "$tmp/data.txt"
want="EDEAAFF3F1774AD2888673770C6D64097E391BC362D7D6FB34982DDF0EFD18CB"

# The installed command line finds its library through its RPATH.
"$prefix/bin/tessarel" --version
got=$("$prefix/bin/tessarel" hash "$tmp/data.txt" | cut -d' ' -f1)
[ "$got" = "$want" ] || { echo "installed tessarel hash: $got" >&2; exit 1; }

# find_package(Tessarel)
mkdir -p "$tmp/cm"
cp "$here/consumer.cpp" "$tmp/cm/"
cat > "$tmp/cm/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(Tessarel 0.1 REQUIRED)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer PRIVATE Tessarel::tessarel)
CM
cmake -S "$tmp/cm" -B "$tmp/cm/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > "$tmp/cm.log"
cmake --build "$tmp/cm/build" > "$tmp/cm-build.log"
out=$("$tmp/cm/build/consumer" "$tmp/data.txt")
[ "${out%% *}" = "$want" ] || { echo "find_package consumer printed: $out" >&2; exit 1; }

# pkg-config
pcdir=$(dirname "$(find "$prefix" -name tessarel.pc | head -n1)")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs tessarel)
libdir=$(PKG_CONFIG_PATH="$pcdir" pkg-config --variable=libdir tessarel)
g++ -std=c++20 "$here/consumer.cpp" -o "$tmp/pc-consumer" $flags -Wl,-rpath,"$libdir"
out=$("$tmp/pc-consumer" "$tmp/data.txt")
[ "${out%% *}" = "$want" ] || { echo "pkg-config consumer printed: $out" >&2; exit 1; }
echo "install checks passed"
