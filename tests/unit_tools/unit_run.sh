#!/usr/bin/env bash
# A unit file through its phases with dpm-unit run --once: every phase must
# settle with the check holding. Member 2's first process exits with status 77
# (as when its database session cannot be resumed): dpm-unit must start it
# again and say so.
#   unit_run.sh DPM-UNIT DPM-HOST UNITFILE
set -euo pipefail
unit=$1 host=$2 file=$3
. "$(dirname "$0")/lib.sh"
cat >"$dir/host.sh" <<SH
#!/usr/bin/env bash
# dpm-host, but member 2's first start ends at once with status 77.
if [ "\$4" = 2 ] && mkdir "$dir/once" 2>/dev/null; then exit 77; fi
exec "$host" "\$@"
SH
chmod +x "$dir/host.sh"
"$unit" run "$file" --once --dir "$dir/unit" --host "$dir/host.sh" --timeout 60 \
  >"$dir/out" 2>&1 &
pid=$!
rc=0
wait "$pid" || rc=$?
pid=
cat "$dir/out"
[ "$rc" = 0 ] || { echo "FAILED: dpm-unit run exited with $rc"; exit 1; }
grep -q "member 2 exited with status 77 (its database session could not be resumed): starting it again" \
  "$dir/out" || { echo "FAILED: the restart of member 2 was not logged"; exit 1; }
phases=$(grep -c "^== .*: converged in" "$dir/out")
want=$(($(grep -c "^  - name:" "$file") + 1))
[ "$phases" = "$want" ] || { echo "FAILED: $phases of $want phases converged"; exit 1; }
