#!/usr/bin/env bash
# Fails when a library folder includes a header of a folder above it.
set -u
root=${1:-.}
layers=(foundation format descriptor grain extent disk)
status=0
for i in "${!layers[@]}"; do
    layer=${layers[$i]}
    above=("${layers[@]:$((i + 1))}")
    [ ${#above[@]} -eq 0 ] && continue
    pattern=$(IFS='|'; echo "${above[*]}")
    hits=$(grep -rnE "#include \"harl/($pattern)/" "$root/$layer" 2>/dev/null)
    if [ -n "$hits" ]; then
        echo "$layer includes from a layer above it:"
        echo "$hits"
        status=1
    fi
done
# Crypto and compression engines stay inside the foundation's sources.
hits=$(grep -rnE '#include <(openssl|zlib|libdeflate)' "$root"/{format,descriptor,grain,extent,disk} \
       "$root"/foundation --include='*.h' 2>/dev/null)
if [ -n "$hits" ]; then
    echo "Engine headers outside the foundation's sources:"
    echo "$hits"
    status=1
fi
[ $status -eq 0 ] && echo "layering ok"
exit $status
