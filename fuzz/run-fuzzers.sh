#!/usr/bin/env bash
# run-fuzzers.sh BUILD_DIR SECONDS
# Builds the seed corpora and runs each fuzz target for SECONDS. Findings are
# written to BUILD_DIR/fuzz/findings; a crash fails the run.
set -euo pipefail
build_dir=$1
seconds=${2:-60}
fuzz_dir=$build_dir/fuzz
corpus=$fuzz_dir/corpus
findings=$fuzz_dir/findings
mkdir -p "$corpus" "$findings"
"$fuzz_dir/make_corpus" "$corpus"

run() {
    local target=$1 seeds=$2
    local work=$fuzz_dir/work-$target
    mkdir -p "$work"
    echo "== $target for ${seconds}s"
    "$fuzz_dir/$target" "$work" "$seeds" -max_total_time="$seconds" -rss_limit_mb=4096 -timeout=30 \
        -artifact_prefix="$findings/$target-" -print_final_stats=1 2>&1 | tail -n 12
}

status=0
run fuzz_open_file "$corpus/open" || status=1
run fuzz_uncompress "$corpus/uncompress" || status=1
run fuzz_operations "$corpus/operations" || status=1
# The tool's commands read the same files as the opening target.
run fuzz_tool_commands "$corpus/open" || status=1
exit $status
