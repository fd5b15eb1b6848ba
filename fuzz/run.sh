#!/bin/sh
# Runs fuzz targets for a while each and reports executions, coverage and
# findings.
#
#   fuzz/run.sh BUILD SECONDS MODE TARGET...
#
# BUILD is the clang build folder with the targets in BUILD/fuzz. MODE
# "keep" grows a corpus of its own per target in BUILD/fuzz-corpus, so that
# later runs start where earlier ones stopped; MODE "fresh" starts from the
# seeds alone each time (what `make test` does). The seeds are fuzz/seeds/,
# samples/ and, when it is there, the shared corpus beside the repository;
# they are only read. Inputs that break something go to BUILD/fuzz-findings,
# logs to BUILD/fuzz-logs/TARGET-MODE.log. FUZZ_JOBS (1 or 2) targets run
# at once. The exit status is non-zero when any target found something.
set -u
build=$1
seconds=$2
mode=$3
shift 3
top=$(cd "$(dirname "$0")/.." && pwd)
jobs=${FUZZ_JOBS:-1}
[ "$jobs" -gt 2 ] && jobs=2  # the machines are shared: never more than two

mkdir -p "$build/fuzz-findings" "$build/fuzz-logs"

# The longest input each target is given: a message, a header, a value.
max_len() {
  case $1 in
    host_walk) echo 32768 ;;
    header | block_scanner) echo 16384 ;;
    codecs) echo 8192 ;;
    *) echo 4096 ;;
  esac
}

run_one() {
  target=$1
  binary="$build/fuzz/${target}_fuzz"
  if [ ! -x "$binary" ]; then
    echo "$target: no $binary" >&2
    return 1
  fi
  if [ "$mode" = fresh ]; then
    corpus="$build/fuzz-corpus-fresh/$target"
    rm -rf "$corpus"
  else
    corpus="$build/fuzz-corpus/$target"
  fi
  mkdir -p "$corpus"
  set -- "$corpus"
  [ -d "$top/fuzz/seeds/$target" ] && set -- "$@" "$top/fuzz/seeds/$target"
  set -- "$@" "$top/samples"
  [ -d "$top/../shared/corpus" ] && set -- "$@" "$top/../shared/corpus"
  # One log per mode, so that the short check of `make test` can run beside
  # a long run without writing over its log.
  log="$build/fuzz-logs/$target-$mode.log"
  # A fresh run is the check of `make test`: a fixed seed makes it explore
  # the same way on every machine, so that a finding can be replayed.
  seed=0
  [ "$mode" = fresh ] && seed=1
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$binary" "$@" -max_total_time="$seconds" -max_len="$(max_len "$target")" -timeout=25 \
    -rss_limit_mb=2560 -dict="$top/fuzz/mail.dict" -print_final_stats=1 -seed="$seed" \
    -artifact_prefix="$build/fuzz-findings/$target-" >"$log" 2>&1
  result=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  time=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log")
  coverage=$(grep -E '^#[0-9]+' "$log" | tail -1 | sed -n 's/.* cov: \([0-9]*\) ft: \([0-9]*\) corp: \([^ ]*\).*/\1 edges, \2 features, corpus \3/p')
  if [ $result -eq 0 ]; then
    echo "$target: ${runs:-?} runs in ${time:-$seconds} s, $coverage, no finding"
  else
    echo "$target: FINDING after ${runs:-?} runs ($coverage); see $log" >&2
    grep -E 'invariant broken|ERROR: |SUMMARY: ' "$log" | head -5 >&2
  fi
  return $result
}

status=0
if [ "$jobs" -le 1 ]; then
  for target in "$@"; do run_one "$target" || status=1; done
else
  # Two at a time: start the second of each pair in the background.
  while [ $# -gt 0 ]; do
    first=$1
    shift
    if [ $# -gt 0 ]; then
      second=$1
      shift
      run_one "$second" &
      pid=$!
      run_one "$first" || status=1
      wait $pid || status=1
    else
      run_one "$first" || status=1
    fi
  done
fi
exit $status
