# What the unit scripts share: a private folder, and the process a script runs
# in the background (its pid in $pid) ended with the script, also when the
# script is stopped.
dir=$(mktemp -d "${TMPDIR:-/tmp}/dpm-unit-test.XXXXXX")
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
  rm -rf "$dir"
}
trap cleanup EXIT
trap 'exit 1' TERM INT
