#!/usr/bin/env bash
# Packs the client as npm would publish it and checks that the tarball holds exactly the module,
# its types, its README and package.json, byte for byte the files the tests ran. No network.
set -euo pipefail
package_dir="$(cd "$(dirname "$0")/.." && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cd "$package_dir"
# A cache of its own: nothing in the user's npm cache or config is read or written.
export npm_config_cache="$work/cache" npm_config_userconfig="$work/npmrc" npm_config_offline=true
npm pack --ignore-scripts --json --pack-destination "$work" >"$work/pack.json" 2>"$work/pack.err" || {
    cat "$work/pack.err" >&2
    exit 1
}
tarball="$work/$(node -e 'console.log(JSON.parse(require("fs").readFileSync(process.argv[1]))[0].filename)' "$work/pack.json")"

mkdir "$work/unpacked"
tar -xzf "$tarball" -C "$work/unpacked"
listed="$(cd "$work/unpacked" && find . -type f | sort | tr '\n' ' ')"
expected="./package/README.md ./package/package.json ./package/teranocounter.d.ts ./package/teranocounter.js "
if [[ "$listed" != "$expected" ]]; then
    echo "the package holds: $listed" >&2
    echo "expected exactly:  $expected" >&2
    exit 1
fi
for file in teranocounter.js teranocounter.d.ts README.md package.json; do
    cmp "$package_dir/$file" "$work/unpacked/package/$file"
done

# The entry points package.json names are the packed files, and the module loads from the
# unpacked package by its name.
mkdir -p "$work/app/node_modules"
mv "$work/unpacked/package" "$work/app/node_modules/teranocounter"
cd "$work/app"
node --input-type=module -e '
import { TeranoCounter, notInCp949 } from "teranocounter";
import assert from "node:assert/strict";
assert.equal(typeof TeranoCounter, "function");
assert.deepEqual(notInCp949("김치 😀"), ["😀"]);
const manifest = JSON.parse((await import("node:fs")).readFileSync("node_modules/teranocounter/package.json"));
assert.equal(manifest.exports["."].types, "./teranocounter.d.ts");
assert.equal((await import("node:fs")).existsSync("node_modules/teranocounter/" + manifest.exports["."].types), true);
'
echo "package ok: $(basename "$tarball"), $listed"
