#!/usr/bin/env bash
# Installs a finished build into a new temporary prefix and uses it as a host would: builds and
# runs examples/ against the CMake package, and compiles every installed header and links
# against the pkg-config file. Usage: bash scripts/check-install.sh <build folder>
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: check-install.sh <build folder>}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" > /dev/null
for file in lib/libharl.a lib/cmake/harl/harlConfig.cmake lib/pkgconfig/harl.pc \
    include/harl/Version.h include/harl/disk/CVMDKDisk.h; do
    [ -f "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done
if [ -x "$build/tools/harl-img/harl-img" ] && [ ! -x "$prefix/bin/harl-img" ]; then
    echo "not installed: bin/harl-img"
    exit 1
fi

# The example, configured, built and run as its own project against the prefix alone.
cmake -S examples -B "$work/example" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build "$work/example" -j "$(nproc)" > /dev/null
mkdir "$work/disks"
"$work/example/harl_host_example" "$work/disks"

# Each installed header compiles with only what harl.pc gives, and a program links with it.
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
(cd "$prefix/include" && find harl -name '*.h' | sort | sed 's/.*/#include "&"/') \
    > "$work/headers.cpp"
echo 'int main() { return HARL_VERSION > 0 ? 0 : 1; }' >> "$work/headers.cpp"
g++ -std=c++20 -Wall -Wextra -Werror "$work/headers.cpp" -o "$work/headers" \
    $(pkg-config --cflags harl) $(pkg-config --static --libs harl)
"$work/headers"
echo "install ok: harl $(pkg-config --modversion harl)"
