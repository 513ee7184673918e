#!/usr/bin/env bash
# Every option that --help lists has an entry of its own in the manual page's OPTIONS, so
# the manual cannot fall behind the program.
#   check-manpage.sh <teranocounter binary> <manual page source>
set -euo pipefail
binary="$1"
page="$2"

help_options="$("$binary" --help | grep -oE '(^|[ [,])--?[a-z][a-z-]*' | grep -oE -- '--?[a-z][a-z-]*' | sort -u)"
# The tag lines (after .TP) in OPTIONS, with troff's \- made plain.
man_options="$(awk '/^\.SH OPTIONS/{on=1; next} /^\.SH/{on=0} on && tag {print; tag=0} on && /^\.TP/{tag=1}' "$page" |
    sed 's/\\-/-/g' | grep -oE -- '--?[a-z][a-z-]*' | sort -u)"
[[ -n "$help_options" ]] || { echo "--help lists no options"; exit 1; }
missing="$(comm -23 <(echo "$help_options") <(echo "$man_options"))"
if [[ -n "$missing" ]]; then
    echo "options in --help without an entry in the manual page:"
    echo "$missing"
    exit 1
fi
extra="$(comm -13 <(echo "$help_options") <(echo "$man_options"))"
if [[ -n "$extra" ]]; then
    echo "options in the manual page that --help does not list:"
    echo "$extra"
    exit 1
fi
# The page must also render without complaint.
if command -v man >/dev/null; then
    warnings="$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null || true)"
    [[ -z "$warnings" ]] || { echo "$warnings"; exit 1; }
fi
echo "manual page lists the $(wc -l <<<"$help_options") options of --help: $(tr '\n' ' ' <<<"$help_options")"
