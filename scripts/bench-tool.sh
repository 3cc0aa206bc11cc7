#!/usr/bin/env bash
# Measures harl-img beside qemu-img and the plain bounds, in one run, on two generated raw images
# of HARL_BENCH_MIB MiB (default 1024): an ext4 file system with files (about a third of its
# grains zero) and random data. Each case runs HARL_BENCH_RUNS times (default 5), the cases of a
# group taking turns; the table gives the median wall time, the ratio to harl-img's own line of
# the group, the fastest and slowest run, and the peak resident memory (GNU time). Every writing case ends with `sync`, so
# that all pay for getting their data to the disk, as harl-img's flushes do.
#
# Groups: raw -> monolithic VMDK beside `qemu-img convert -O vmdk` and `cp` + sync; raw ->
# compressed on one and two threads beside `qemu-img convert -O vmdk -o
# subformat=streamOptimized` and libdeflate level 1 over the same grains (CPU only); raw ->
# encrypted beside `openssl enc -aes-256-cbc` + sync and AES-256-CBC over the same grains (CPU
# only); VMDK -> raw beside `qemu-img convert -O raw` and `cat` + sync; qemu-img's
# stream-optimized file of the ext4 image -> compressed, beside qemu-img converting it again.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
mib=${HARL_BENCH_MIB:-1024}
runs=${HARL_BENCH_RUNS:-5}

bash scripts/setup.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DHARL_TESTS=OFF -DHARL_BENCHMARKS=ON \
    > /dev/null
cmake --build build-release -j "$(nproc)" --target harl-img bench_ToolBoundsBench > /dev/null
tool=$root/build-release/tools/harl-img/harl-img
bounds=$root/build-release/bench/bench_ToolBoundsBench
export PATH=$PATH:/usr/sbin:/sbin

work=$(mktemp -d "${TMPDIR:-/var/tmp}/harl-bench-XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"
echo "secret password" > password

# ext4 with text, binaries and random files, filled to about two thirds.
make_ext4_image() {
    local per=$((mib * 2 / 9))
    # head ends the producers early on purpose.
    set +o pipefail
    mkdir -p files
    seq -f "log line %g: grain written, table flushed, extent closed" 1 100000000 |
        head -c "${per}M" > files/log.txt
    find /usr/lib /usr/bin -type f -size +64k 2>/dev/null | sort | xargs cat 2>/dev/null |
        head -c "${per}M" > files/binaries.bin
    head -c "${per}M" /dev/urandom > files/random.bin
    set -o pipefail
    mkfs.ext4 -q -F -d files ext4.raw "${mib}M" > /dev/null
    rm -rf files
}

# Runs the cases of a group (pairs of name and shell command) `runs` times, taking turns in an
# order drawn anew each round, so that a slow spell of the disk or the host, or a machine that
# is slow on every other run, falls on every case alike; prints a row per case with the median
# wall time, the ratio to the group's first case, the fastest and slowest run and the peak
# resident memory. out.* is removed and everything synced before each run.
cases() {
    local count=$(($# / 2)) names=() commands=() times=() peaks=()
    while [ $# -gt 0 ]; do
        names+=("$1") commands+=("$2") times+=("") peaks+=(0)
        shift 2
    done
    for _ in $(seq "$runs"); do
        for i in $(seq 0 $((count - 1)) | shuf); do
            rm -rf out.* && sync
            /usr/bin/time -o time.txt -f "%e %M" sh -c "${commands[$i]}" > /dev/null 2>&1
            local result
            result=$(tail -1 time.txt)
            times[$i]="${times[$i]} ${result% *}"
            peaks[$i]=$(( ${result#* } > ${peaks[$i]} ? ${result#* } : ${peaks[$i]} ))
        done
    done
    for i in $(seq 0 $((count - 1))); do
        # shellcheck disable=SC2086
        row "${names[$i]}" "$(median ${times[$i]})" "${peaks[$i]}" \
            "$(printf '%s\n' ${times[$i]} | sort -n | sed -n '1p;$p' | paste -sd-)"
    done
}

median() {
    printf '%s\n' "$@" | sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'
}

# The median seconds of a Google Benchmark case of the bounds program over `image`.
bound() {
    HARL_BENCH_RAW_IMAGE=$1 "$bounds" --benchmark_filter="$2" --benchmark_repetitions="$runs" \
        --benchmark_report_aggregates_only=true --benchmark_format=csv 2> /dev/null |
        awk -F, '/BM_/ { one = $3 } /_median/ { median = $3 } END { print (median != "" ? median : one) / 1000 }'
}

base=""
row() {
    local name=$1 seconds=$2 peak=$3 spread=${4:--}
    [ -z "$base" ] && base=$seconds
    printf '| %-44s | %8.2f | %6.2f | %11s | %8s |\n' "$name" "$seconds" \
        "$(awk -v a="$seconds" -v b="$base" 'BEGIN { print (b > 0 ? a / b : 0) }')" "$spread" \
        "$([ "$peak" = "-" ] && echo "-" || echo "$((peak / 1024)) MiB")"
}

group() {
    base=""
    echo
    echo "| $1 | seconds | × harl-img | runs | peak RSS |"
    echo "|---|---:|---:|---:|---:|"
}

make_ext4_image
head -c "${mib}M" /dev/urandom > random.raw
zeros=$("$tool" map --output=json ext4.raw |
    jq '[.[] | select(.zero) | .length] | add / 1048576 | floor' 2> /dev/null || echo "?")
echo "Images: ${mib} MiB each; ext4.raw has ${zeros} MiB of zero chunks. Load: $(cut -d' ' -f1-3 /proc/loadavg)."
echo "Medians of ${runs} runs on $(nproc) cores."

for image in ext4 random; do
    raw=$image.raw
    "$tool" convert -q -O vmdk $raw src.vmdk
    group "$raw → monolithic VMDK"
    cases "harl-img convert -O vmdk" "$tool convert -q -O vmdk $raw out.vmdk && sync" \
        "qemu-img convert -O vmdk" "qemu-img convert -O vmdk $raw out.vmdk && sync" \
        "cp + sync" "cp $raw out.raw && sync"

    group "$raw → compressed VMDK"
    cases "harl-img convert -c -j 1" "$tool convert -q -O vmdk -c -j 1 $raw out.vmdk && sync" \
        "harl-img convert -c -j 2" "$tool convert -q -O vmdk -c -j 2 $raw out.vmdk && sync" \
        "qemu-img convert subformat=streamOptimized" \
        "qemu-img convert -O vmdk -o subformat=streamOptimized $raw out.vmdk && sync"
    row "libdeflate level 1 over the grains (CPU)" "$(bound $raw BM_DeflateGrainsLevel1)" "-"

    group "$raw → encrypted VMDK"
    cases "harl-img convert -o encrypt=on" \
        "$tool convert -q -O vmdk -o encrypt=on --target-password-file password $raw out.vmdk && sync" \
        "openssl enc -aes-256-cbc + sync" \
        "openssl enc -aes-256-cbc -nosalt -K $(printf '%064d' 7) -iv $(printf '%032d' 9) -in $raw -out out.enc && sync"
    row "AES-256-CBC over the grains (CPU)" "$(bound $raw BM_EncryptGrainsAes256Cbc)" "-"

    group "monolithic VMDK of $raw → raw"
    cases "harl-img convert -O raw" "$tool convert -q -O raw src.vmdk out.raw && sync" \
        "qemu-img convert -O raw" "qemu-img convert -O raw src.vmdk out.raw && sync" \
        "cat + sync" "cat src.vmdk > out.raw && sync"
    rm -f src.vmdk
done

# Importing another writer's file: qemu-img's stream-optimized form of the ext4 image, whose
# stored grains harl-img moves into its compressed disk as they are.
qemu-img convert -O vmdk -o subformat=streamOptimized ext4.raw qemu-stream.vmdk
group "qemu-img's stream-optimized VMDK of ext4.raw → compressed VMDK"
cases "harl-img convert -c" "$tool convert -q -O vmdk -c qemu-stream.vmdk out.vmdk && sync" \
    "qemu-img convert subformat=streamOptimized" \
    "qemu-img convert -O vmdk -o subformat=streamOptimized qemu-stream.vmdk out.vmdk && sync"
