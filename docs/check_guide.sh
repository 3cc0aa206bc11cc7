#!/usr/bin/env bash
# Keeps the code in docs/guide.md equal to the example sources it quotes. A quote is a line
#   <!-- quote: <file> <region> -->
# followed by a fenced code block. It holds the lines between "[start:<region>]" and
# "[end:<region>]" in <file> (a path from the repository root), less the indentation of the
# start line and any blank lines at its end. Fails with a diff when a quote differs; --update rewrites the guide instead.
set -euo pipefail
root=${1:-.}
mode=${2:-}
guide="$root/docs/guide.md"

expected=$(awk -v root="$root" '
    function region(file, name,    line, inside, indent, found, text) {
        inside = 0; found = 0; text = ""
        while ((getline line < (root "/" file)) > 0) {
            if (!inside && index(line, "[start:" name "]")) {
                inside = 1; found = 1
                match(line, /^ */); indent = RLENGTH
                continue
            }
            if (inside && index(line, "[end:" name "]")) {
                inside = 0
                continue
            }
            if (inside) {
                text = text substr(line, line ~ /^ *$/ ? length(line) + 1 : indent + 1) "\n"
            }
        }
        close(root "/" file)
        sub(/\n\n+$/, "\n", text)
        if (!found) {
            printf "check_guide: no region \"%s\" in %s\n", name, file > "/dev/stderr"
            exit 2
        }
        return text
    }
    quote != "" && /^```/ && !open { print; printf "%s", region(file, quote); open = 1; next }
    open && /^```$/ { print; open = 0; quote = ""; next }
    open { next }
    match($0, /^<!-- quote: [^ ]+ [^ ]+ -->$/) {
        split($0, part, " "); file = part[3]; quote = part[4]
    }
    { print }
' "$guide")

if [ "$mode" = "--update" ]; then
    printf '%s\n' "$expected" > "$guide"
elif ! diff -u "$guide" <(printf '%s\n' "$expected"); then
    echo "docs/guide.md quotes code that has changed: run bash docs/check_guide.sh . --update"
    exit 1
fi
