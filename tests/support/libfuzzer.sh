# Shared by the tests/*/fuzz/run-fuzz.sh scripts: builds one libFuzzer target with clang
# (address and undefined-behaviour sanitizers on) against Qt Core and runs it.
#
#   source tests/support/libfuzzer.sh
#   run_libfuzzer <builddir> <name> <seconds> <seeds dir> <dict or ""> <source or flag>...
#
# Everything it writes goes under <builddir>/<name> (binary, working corpus, crash files);
# the committed seeds are only read. Fails if the build fails or the fuzzer finds a crash,
# a leak or a broken property.
run_libfuzzer() {
    local builddir="$1" name="$2" seconds="$3" seeds="$4" dict="$5"
    shift 5
    mkdir -p "$builddir"
    local out
    out="$(cd "$builddir" && pwd)/$name"
    local cxx="${CXX_FUZZ:-clang++}"
    mkdir -p "$out/corpus" "$out/artifacts"

    # -fPIC: Debian's Qt is built so that code using its headers must be position independent.
    # shellcheck disable=SC2046
    "$cxx" -std=c++20 -g -O1 -fPIC -fno-omit-frame-pointer \
        -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=undefined \
        $(pkg-config --cflags Qt6Core) "$@" $(pkg-config --libs Qt6Core) -o "$out/$name"

    echo "running $out/$name for ${seconds}s"
    local options=(-max_total_time="$seconds" -artifact_prefix="$out/artifacts/" -print_final_stats=1)
    [[ -n "$dict" ]] && options+=(-dict="$dict")
    "$out/$name" "${options[@]}" "$out/corpus" "$seeds"
}
