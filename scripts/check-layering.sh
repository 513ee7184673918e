#!/usr/bin/env bash
# Checks that the libraries under src/ depend on each other in one direction only, as the
# table below says, and that every include of another folder's header names that folder.
# A lower library that reaches up (common into gateway, a terminal channel into the shell)
# would compile today and tangle the build tomorrow; this check makes it a CI failure.
#
#   bash scripts/check-layering.sh [source root]
set -euo pipefail
root="$(cd "${1:-$(dirname "$0")/..}" && pwd)"

# What each library may include besides itself. Lower libraries first.
declare -A allowed=(
    [common]=""
    [net]="common"
    [store]="common"
    [kitchen]="common store"
    [terminal_serial]="common"
    [terminal_tcp]="common net store"
    [gateway]="common net store kitchen"
    [devsim]="common"
    [stomp]="common net"
    [service]="common net store kitchen terminal_serial terminal_tcp gateway"
    [shell]="common net store kitchen terminal_serial terminal_tcp gateway service"
)
# Headers the build generates next to a library rather than keeping in src/.
generated="teranoversion.h"

problems=0
problem() {
    echo "layering: $*" >&2
    problems=$((problems + 1))
}

for dir in "$root"/src/*/; do
    lib="$(basename "$dir")"
    if [[ ! -v allowed[$lib] ]]; then
        problem "src/$lib is not in the table of scripts/check-layering.sh"
        continue
    fi
    used=()
    while IFS=: read -r file line; do
        header="${line#*\"}"
        header="${header%%\"*}"
        rel="${file#"$root"/}"
        if [[ $header == */* ]]; then
            folder="${header%%/*}"
            [[ -f $root/src/$header ]] || problem "$rel includes \"$header\", which is not under src/"
            [[ $folder == "$lib" ]] && continue
            if [[ " ${allowed[$lib]} " != *" $folder "* ]]; then
                problem "$rel includes \"$header\": $lib may use only: ${allowed[$lib]:-nothing of ours}"
            fi
            used+=("$folder")
        elif [[ ! -f $dir/$header && " $generated " != *" $header "* ]]; then
            problem "$rel includes \"$header\" without its folder"
        fi
    done < <(grep -HE '^[[:space:]]*#[[:space:]]*include[[:space:]]+"' "$dir"*.h "$dir"*.cpp 2>/dev/null || true)
    # Each library names what it uses, so that its link line shows its real dependencies.
    links="$(tr '\n' ' ' <"$dir/CMakeLists.txt" | grep -oE "target_link_libraries\($lib [^)]*\)" || true)"
    for folder in $(printf '%s\n' "${used[@]}" | sort -u); do
        [[ " $links " == *" $folder "* ]] || problem "src/$lib uses $folder but its target_link_libraries does not name it"
    done
done

# Tests and benchmarks reach src/ headers by folder too.
while IFS=: read -r file line; do
    header="${line#*\"}"
    header="${header%%\"*}"
    [[ $header == */* ]] && continue
    if compgen -G "$root/src/*/$header" >/dev/null; then
        problem "${file#"$root"/} includes \"$header\" without its folder"
    fi
done < <(grep -rHE --include='*.h' --include='*.cpp' '^[[:space:]]*#[[:space:]]*include[[:space:]]+"' "$root/tests" "$root/bench" || true)

if ((problems)); then
    echo "layering: $problems problem(s)" >&2
    exit 1
fi
echo "layering: $(ls -d "$root"/src/*/ | wc -l) libraries, includes qualified and one-directional"
