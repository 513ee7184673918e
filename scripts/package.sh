#!/usr/bin/env bash
# Builds the Debian packages into the given build directory (default: build-deb):
#   teranocounter_<version>_amd64.deb        the service, for a shop computer
#   teranocounter-tools_<version>_amd64.deb  teranocounter-devsim and stomp-test-server
# The version is the project version in CMakeLists.txt, with the git description added
# between releases. An existing build directory is reused as it is (only what changed is
# rebuilt); a sanitized build is refused, since its binaries need the sanitizer runtimes.
set -euo pipefail
cd "$(dirname "$0")/.."
dir="${1:-build-deb}"
bash scripts/install-deps.sh --package
if [[ -f "$dir/CMakeCache.txt" ]] && grep -q '^TERANO_SANITIZE:BOOL=ON' "$dir/CMakeCache.txt"; then
    echo "$dir is a sanitized build; package from a normal one" >&2
    exit 2
fi
bash scripts/build.sh "$dir"
(cd "$dir" && cpack -G DEB >cpack.log 2>&1) || { cat "$dir/cpack.log" >&2; exit 1; }
version="$("$dir/bin/teranocounter" --version)"
version="${version#teranocounter }"
for package in teranocounter teranocounter-tools; do
    deb="$dir/${package}_${version}_amd64.deb"
    [[ -f $deb ]] || { echo "cpack made no $deb; see $dir/cpack.log" >&2; exit 1; }
    echo "$deb"
done
