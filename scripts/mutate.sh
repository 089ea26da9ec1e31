#!/usr/bin/env bash
# Mutation testing of the module: generates mutants from the module's sources
# (scripts/mutate_gen.py, through libclang), applies each to its file, rebuilds
# incrementally, runs the tests, restores the file, and reports killed /
# survived / not compiling / timed out, per file and per test.
#
#   scripts/mutate.sh (--sample N [--seed S] | --all | --ids FILE) [--files REGEX] [--tests REGEX]
#                     [--build DIR] [--asan DIR | --no-asan] [--fresh] [--report]
#                     [--min-rate PERCENT]
#
#   --sample N  N mutants drawn at random (seed S, default 1), spread over the
#               module's files by size; --all runs every mutant (many hours)
#   --ids       only the mutants whose ids FILE lists, one a line (to check
#               again the survivors of a sample after new tests)
#   --files     only mutants of the module files whose path matches REGEX
#   --tests     only the ctest tests matching REGEX (quicker, partial kills)
#   --build     build directory (default build/mutate, configured when missing)
#   --asan      the sanitizer build (ASan+UBSan) for the last layer (default
#               build/mutate-asan, configured when missing); --no-asan skips it
#   --fresh     forget earlier results of this selection; without it a run
#               resumes, skipping mutants whose result is already recorded
#   --report    only print the summary of the recorded results
#   --min-rate  exit 1 when the kill rate is below PERCENT (CI)
#
# A mutant whose file compiles to the same code as before (its object file,
# without debug information, unchanged) is the same program: it is recorded
# as "samecode", not run, and left out of the rate.
#
# Tests run in layers, cheapest first, each stopping at its first failure: the
# module's unit tests, the scenarios, the oracle harness, the Redis runs, and
# then, for a mutant all of them let through, every test again in the
# sanitizer build (CI runs both builds, so a fault only ASan or UBSan sees,
# a leak or a read past a table, is caught by the suite too). A mutant is
# killed by the first layer that fails, so survivors cost a full run and kills
# cost little. Each layer's per-test timeout is ten times its slowest test in
# the unmutated run (at least 60 s).
#
# Results go to DIR/mutate/NAME.tsv (NAME: sample-N-seed-S, all or ids-FILE) and the
# selection to NAME.plan.tsv; the equivalent mutants of tests/mutation-triage.txt
# are reported apart. Run it niced on a shared machine.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
py=/usr/bin/python3  # Debian's, which has python3-clang-14
[[ -x $py ]] || py=python3
build=build/mutate
n="" seed=1 all=0 ids="" tests="" files="" asan=build/mutate-asan fresh=0 report_only=0 min_rate=""
usage="usage: $0 (--sample N [--seed S] | --all | --ids FILE) [--files REGEX] [--tests REGEX] [--build DIR] [--asan DIR|--no-asan] [--fresh] [--report] [--min-rate P]"
while (($#)); do
  case $1 in
    --sample) n=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    --all) all=1; shift ;;
    --ids) ids=$(realpath "$2"); shift 2 ;;
    --tests) tests=$2; shift 2 ;;
    --files) files=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --asan) asan=$2; shift 2 ;;
    --no-asan) asan=""; shift ;;
    --fresh) fresh=1; shift ;;
    --report) report_only=1; shift ;;
    --min-rate) min_rate=$2; shift 2 ;;
    *) echo "$usage" >&2; exit 2 ;;
  esac
done
if (( all + (${#n} > 0) + (${#ids} > 0) != 1 )); then echo "$usage" >&2; exit 2; fi
if [[ -n $ids ]]; then
  name=ids-$(basename "$ids" .txt); name=${name//[^A-Za-z0-9_.-]/_}
elif ((all)); then
  name=all
else
  name=sample-$n-seed-$seed
fi
[[ -n $files ]] && name+="-files-$(tr -c 'A-Za-z0-9_.' _ <<<"$files")"
[[ -n $tests ]] && name+="-tests-$(tr -c 'A-Za-z0-9_.' _ <<<"$tests")"
out=$build/mutate
results=$out/$name.tsv
plan=$out/$name.plan.tsv
mkdir -p "$out"
# Runs share the sources of this worktree, whatever their build directory.
exec 9>build/.mutate.lock
flock -n 9 || { echo "another mutation run is changing this worktree's sources" >&2; exit 1; }

report() {
  $py scripts/mutate_report.py "$plan" "$results" tests/mutation-triage.txt "$out/tests.json" \
    ${min_rate:+--min-rate "$min_rate"}
}
if ((report_only)); then report; exit; fi

# A run that was killed outright leaves its mutated file's original here.
pending=$out/pending
restore() {
  if [[ -f $pending ]]; then
    cp "$out/original" "$(cat "$pending")"
    rm -f "$pending" "$out/original"
  fi
}
restore
trap 'restore' EXIT
trap 'restore; exit 130' INT TERM HUP

if [[ ! -f $build/build.ninja ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDPM_BENCH=OFF \
    -DDPM_FUZZ=OFF >/dev/null
fi
if [[ -n $asan && ! -f $asan/build.ninja ]]; then
  cmake -S . -B "$asan" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DDPM_SANITIZE=ON -DDPM_BENCH=OFF \
    -DDPM_FUZZ=OFF >/dev/null
fi
for dir in "$build" $asan; do
  cmake --build "$dir" >"$out/build.log" 2>&1 || { cat "$out/build.log"; exit 1; }
done
((fresh)) && rm -f "$results"
touch "$results"
gen=($py scripts/mutate_gen.py ${files:+--files "$files"} "$build")
if [[ -n $ids ]]; then
  # The plan's first column is the id; keep the listed ones, in the plan's order.
  "${gen[@]}" list | awk -F'\t' 'NR == FNR { if (NF) want[$0] = 1; next } $1 in want' "$ids" - \
    >"$plan.new"
  [[ $(wc -l <"$plan.new") == $(grep -c . "$ids") ]] ||
    echo "warning: $(grep -c . "$ids") ids listed, $(wc -l <"$plan.new") found" >&2
elif ((all)); then
  "${gen[@]}" list >"$plan.new"
else
  "${gen[@]}" sample "$n" "$seed" >"$plan.new"
fi
mv "$plan.new" "$plan"

# Tests that start servers of their own get a private TMPDIR; whatever a cut
# short test leaves running there (or in the fixture's folder) is ended after
# each ctest run, by pid.
tmp=$root/$out/tmp
mkdir -p "$tmp"
reap() {
  local p dir
  for p in /proc/[0-9]*; do
    dir=$(readlink "$p/cwd" 2>/dev/null) || continue
    case $dir in
      "$tmp"/* | "$root/$build"/tests/redis* | "$root/$asan"/tests/redis*)
        kill "${p#/proc/}" 2>/dev/null || true ;;
    esac
  done
}
# A run stopped by a signal also ends what its tests left running.
trap 'restore; reap; exit 130' INT TERM HUP

# name, build directory, ctest selection
layers=("module $build -L module" "scenario $build -L scenario -LE redis"
        "oracle $build -L oracle" "redis $build -L redis")
[[ -n $asan ]] && layers+=("asan $asan")
run_layer() {  # run_layer LAYER LOG [TIMEOUT]: ctest of one layer
  local words=($1)
  local args=(--test-dir "${words[1]}" -j2 "${words[@]:2}")
  [[ -n $tests ]] && args+=(-R "$tests")
  [[ -n ${3:-} ]] && args+=(--timeout "$3" --stop-on-failure)
  TMPDIR=$tmp ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest "${args[@]}" >"$2" 2>&1 || true
  reap
}
# "name status seconds" of every test a ctest log reports.
outcomes() {
  sed -nE 's/^ *[0-9]+\/[0-9]+ +Test +#[0-9]+: +([^ ]+) \.*[ *]*([A-Za-z]+( Run)?)[^0-9]*([0-9.]+) sec.*/\1 \2 \4/p' "$1"
}

# The code a source file compiles to, without its debug information: a mutant
# that leaves it unchanged is the same program (the compiler proved it), so it
# is recorded as "samecode" and never run.
# A header has no object of its own: its mutants are always run.
code_of() {
  local objs obj rel=${1#app/}
  mapfile -t objs < <(find "$build" -path "*/$rel.o" | sort)
  ((${#objs[@]})) || return 0
  for obj in "${objs[@]}"; do
    objcopy --strip-debug "$obj" "$out/stripped.o" && sha256sum <"$out/stripped.o"
  done | sha256sum | cut -d' ' -f1
}
declare -A clean_code
while read -r f; do clean_code[$f]=$(code_of "$f"); done < <(cut -f2 "$plan" | sort -u)

ctest --test-dir "$build" --show-only=json-v1 >"$out/tests.json"
timeouts=()
counts=()
for i in "${!layers[@]}"; do
  log=$out/clean-$i.log
  run_layer "${layers[$i]}" "$log"
  if outcomes "$log" | grep -qv ' Passed '; then
    echo "the unmutated build fails its tests; see $log" >&2
    exit 1
  fi
  slowest=$(outcomes "$log" | awk '$3 > m { m = $3 } END { print int(m + 1) }')
  timeouts[$i]=$((slowest * 10 > 60 ? slowest * 10 : 60))
  counts[$i]=$(outcomes "$log" | wc -l)
done
for i in "${!layers[@]}"; do
  echo "layer ${layers[$i]}: ${counts[$i]} tests, timeout ${timeouts[$i]} s"
done

total=$(wc -l <"$plan")
done_n=0
while IFS=$'\t' read -r -u 3 id file line col start end kind orig repl; do
  done_n=$((done_n + 1))
  grep -qF -- "$id"$'\t' "$results" && continue
  t0=$SECONDS
  cp "$file" "$out/original"
  echo "$file" >"$pending"
  if ! $py scripts/mutate_gen.py apply "$file" "$start" "$end" "$orig" "$repl"; then
    outcome=noapply killers=""
  elif ! cmake --build "$build" >"$out/build.log" 2>&1; then
    outcome=nocompile killers=""
  elif [[ -n ${clean_code[$file]} && $(code_of "$file") == "${clean_code[$file]}" ]]; then
    outcome=samecode killers=""
  else
    outcome=survived killers=""
    for i in "${!layers[@]}"; do
      log=$out/ctest.log
      layer=${layers[$i]%% *}
      if [[ $layer == asan ]] && ! cmake --build "$asan" >"$out/build.log" 2>&1; then
        break  # compiles in one build only: nothing to learn
      fi
      run_layer "${layers[$i]}" "$log" "${timeouts[$i]}"
      # Tests of the sanitizer build are named asan:NAME.
      failed=$(outcomes "$log" |
        awk -v p="$([[ $layer == asan ]] && echo asan:)" '$2 != "Passed" { print p $1 ":" $2 }' |
        tr '\n' ' ')
      ran=$(outcomes "$log" | wc -l)
      if [[ -z $failed && $ran -lt ${counts[$i]} ]]; then
        failed="layer-$layer:tests-missing($ran/${counts[$i]})"
      fi
      if [[ -n $failed ]]; then
        killers=${failed% }
        if grep -qv ':Timeout' <<<"$(tr ' ' '\n' <<<"$killers")"; then
          outcome=killed
        else
          outcome=timeout
        fi
        break
      fi
    done
  fi
  restore
  printf '%s\t%s\t%s\t%s\n' "$id" "$outcome" "$killers" "$((SECONDS - t0))" >>"$results"
  printf '[%d/%d] %s %s:%s %s -> %s  (%ss)\n' "$done_n" "$total" "$outcome" "$file" "$line" \
    "$orig" "$repl" "$((SECONDS - t0))"
done 3<"$plan"
# Leave the builds matching the restored sources.
for dir in "$build" $asan; do cmake --build "$dir" >"$out/build.log" 2>&1 || true; done
report
