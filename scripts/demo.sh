#!/usr/bin/env bash
# The main job of harl on a sample, from a fresh checkout or after the tests: builds harl-img in
# release mode, makes a raw image holding an ext4 file system with some files, converts it
# into a compressed, encrypted VMDK disk with progress shown, describes and checks the disk,
# converts it back to raw and compares the two.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DHARL_TESTS=OFF -DHARL_BENCHMARKS=OFF \
    > /dev/null
cmake --build build-release -j "$(nproc)" --target harl-img > /dev/null
tool=$PWD/build-release/tools/harl-img/harl-img
export PATH=$PATH:/usr/sbin:/sbin

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The sample: text that compresses well, a table of numbers, random data that does not
# compress, and free space that stays out of the disk.
mkdir -p files/logs files/data
seq -f "line %g of the log: grain written, table flushed, extent closed" 1 150000 \
    > files/logs/harl.log
seq 1 3 2000000 | paste -d, - - - - > files/data/table.csv
head -c 6M /dev/urandom > files/data/archive.bin
mkfs.ext4 -q -F -L sample -d files sample.raw 64M > /dev/null
echo "correct horse battery staple" > password

run() {
    echo "\$ harl-img $*"
    "$tool" "$@" 2>&1
    echo
}

run convert -p -O vmdk -c -o encrypt=on --target-password-file password sample.raw sample.vmdk
run info --password-file password sample.vmdk
run check --password-file password sample.vmdk
run convert -p -O raw --password-file password sample.vmdk back.raw
run compare sample.raw back.raw
