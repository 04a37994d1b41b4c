#!/usr/bin/env bash
# Runs every fuzz target of a VORN_FUZZ build for a while, as many at once as
# there are cores (each target is one process on one core), and prints how
# each went; behind `make fuzz`.
#
# Usage: tools/fuzz.sh BUILD_DIR SECONDS [TARGET...]
#   TARGET...  only these targets (default: all)
#   FUZZ_JOBS  targets run at once (default: the number of cores)
#   FUZZ_ARGS  more libFuzzer flags, e.g. -runs=10000000 to stop each target
#              after that many inputs (SECONDS is then the limit)
#
# Targets come from BUILD_DIR/fuzz/targets.txt (written by CMake). Each one
# starts from a fresh copy of its committed seed corpus in
# BUILD_DIR/fuzz/corpus/<target>, where libFuzzer also keeps the new inputs
# it finds, so the repository is never written to. A crashing, leaking,
# hanging (-timeout) or memory-hungry input lands in
# BUILD_DIR/fuzz/artifacts/<target>/, the whole output in
# BUILD_DIR/fuzz/logs/<target>.log, and the last lines give executions and
# executions per second of each target. Exit status 1 when any target failed.
set -uo pipefail

build=${1:?usage: tools/fuzz.sh BUILD_DIR SECONDS}
seconds=${2:?usage: tools/fuzz.sh BUILD_DIR SECONDS}
shift 2
only=("$@")
fuzz=$build/fuzz
manifest=$fuzz/targets.txt
timeout_seconds=10
jobs=${FUZZ_JOBS:-$(nproc)}

if [[ ! -s $manifest ]]; then
  echo "tools/fuzz.sh: no targets in $manifest (configure with -DVORN_FUZZ=ON)" >&2
  exit 1
fi

# Each target writes every input to a file: on tmpfs that costs a fraction of
# what it costs on a disk file system, where it runs three times slower.
# Whatever a crash leaves there goes with this script.
scratch_base=${TMPDIR:-/tmp}
if [[ -d /dev/shm && -w /dev/shm ]]; then
  scratch_base=/dev/shm
fi
scratch_root=$(mktemp -d "$scratch_base/vorn-fuzz.XXXXXX") || exit 1
trap 'rm -rf "$scratch_root"' EXIT

# The value of one of libFuzzer's final "stat::" lines.
final_stat() { sed -n "s/^stat::$1: *//p" "$2" | tail -n 1; }

row_format='%-18s %14s %8s %6s %7s %5s %6s  %s\n'

# Fuzzes one target; its row of the summary goes to $fuzz/rows/<target>, and
# the exit status says whether it failed.
fuzz_target() {
  local name=$1 corpus=$2 dict=$3
  local work=$fuzz/corpus/$name artifacts=$fuzz/artifacts/$name
  local scratch=$scratch_root/$name log=$fuzz/logs/$name.log
  rm -rf "$work" "$artifacts" "$scratch"
  mkdir -p "$work" "$artifacts" "$scratch"
  cp "$corpus"/* "$work"/
  local args=(-max_total_time="$seconds" -timeout="$timeout_seconds" -rss_limit_mb=2048
              -print_final_stats=1 -artifact_prefix="$artifacts/")
  if [[ -n $dict ]]; then
    args+=(-dict="$dict")
  fi
  local extra
  read -r -a extra <<<"${FUZZ_ARGS:-}"
  args+=("${extra[@]}")
  echo "== $name: $seconds s from $(ls "$work" | wc -l) seeds (log: $log)"
  TMPDIR=$scratch "$fuzz/$name" "${args[@]}" "$work" </dev/null >"$log" 2>&1
  local status=$? result=ok
  if [[ $status -ne 0 ]]; then
    local reason
    reason=$(grep -m 1 -E '^(==[0-9]+==)?ERROR:|runtime error|fuzz check failed' "$log")
    result="FAILED (exit $status): ${reason:-see the log}"
    echo "   $name $result"
    ls "$artifacts" | sed "s|^|   input: $artifacts/|"
  fi
  printf "$row_format" "$name" \
    "$(final_stat number_of_executed_units "$log")" "$(final_stat average_exec_per_sec "$log")" \
    "$(final_stat new_units_added "$log")" "$(ls "$work" | wc -l)" \
    "$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1 | cut -d' ' -f2)" \
    "$(final_stat peak_rss_mb "$log")" "$result" >"$fuzz/rows/$name"
  [[ $status -eq 0 ]]
}

wanted() {
  [[ ${#only[@]} -eq 0 ]] && return 0
  local target
  for target in "${only[@]}"; do
    [[ $target == "$1" ]] && return 0
  done
  return 1
}

rm -rf "$fuzz/rows"
mkdir -p "$fuzz/rows" "$fuzz/logs"
names=()
failed=0
running=0
while IFS=$'\t' read -r name corpus dict; do
  wanted "$name" || continue
  names+=("$name")
  if ((running >= jobs)); then
    wait -n || failed=1
    running=$((running - 1))
  fi
  fuzz_target "$name" "$corpus" "$dict" &
  running=$((running + 1))
done <"$manifest"
while ((running > 0)); do
  wait -n || failed=1
  running=$((running - 1))
done

if [[ ${#names[@]} -eq 0 ]]; then
  echo "tools/fuzz.sh: no target named ${only[*]} in $manifest" >&2
  exit 1
fi
echo
printf "$row_format" target executions exec/s new corpus cov rss_mb result
for name in "${names[@]}"; do
  cat "$fuzz/rows/$name"
done
exit $failed
