#!/usr/bin/env bash
# check_install.sh BUILD_DIR SOURCE_DIR CC CXX
# Installs into a scratch prefix, then builds and runs:
#   1. the C example of README.md, as C11, through pkg-config;
#   2. every public header included from C++;
#   3. a CMake project that uses find_package(dvs) and dvs::dvs.
set -euo pipefail
build=$1 src=$2 cc=$3 cxx=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null

pcdir=$(dirname "$(find "$prefix" -name dvs.pc | head -n 1)")
export PKG_CONFIG_PATH=$pcdir

# 1. The README's C example, extracted from its first ```c block.
awk '/^```c$/ {on=1; next} on && /^```$/ {exit} on' "$src/README.md" > "$work/example.c"
[ -s "$work/example.c" ] || { echo "no C example in README.md"; exit 1; }
# shellcheck disable=SC2046
"$cc" -std=c11 -Wall -Wextra -Werror -pedantic "$work/example.c" -o "$work/example" \
  $(pkg-config --cflags --libs dvs)
"$work/example" > "$work/example.out"
grep -q 'com.ostrel.common.alias' "$work/example.out" || {
  echo "example output unexpected:"; cat "$work/example.out"; exit 1; }

# 2. Every public header compiles as C++ too.
for h in "$prefix"/include/*.h; do
  echo "#include <$(basename "$h")>"
done > "$work/all.cc"
echo 'int main() { return 0; }' >> "$work/all.cc"
# shellcheck disable=SC2046
"$cxx" -std=c++17 -Wall -Wextra -Werror "$work/all.cc" -o "$work/all" $(pkg-config --cflags --libs dvs)

# 3. A CMake consumer.
mkdir -p "$work/consumer"
cp "$work/example.c" "$work/consumer/example.c"
cat > "$work/consumer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.18)
project(consumer C)
find_package(dvs REQUIRED)
add_executable(example example.c)
target_link_libraries(example PRIVATE dvs::dvs)
CMAKE
cmake -S "$work/consumer" -B "$work/consumer/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/consumer/build" >/dev/null
"$work/consumer/build/example" | grep -q 'com.ostrel.common.alias'
# 4. The installed programs find the installed libraries on their own.
for tool in dvsctl dvs-kernel-sim; do
  if [ -x "$prefix/bin/$tool" ]; then
    env -u LD_LIBRARY_PATH "$prefix/bin/$tool" --help >/dev/null
  fi
done
echo "install consumers: ok"
