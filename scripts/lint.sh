#!/usr/bin/env bash
# Layout and static checks: clang-format over every C++ source, and clang-tidy
# (the repo's .clang-tidy) over the module, the stand-in and the host when a
# build directory with compile_commands.json is given.
#   scripts/lint.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.cpp' '*.h')
clang-format --dry-run -Werror $files
echo "clang-format: ok"

build=${1:-}
if [ -n "$build" ]; then
  git ls-files 'app/*.cpp' 'platform/src/*.cpp' 'host/*.cpp' |
    xargs -P "$(nproc)" -n 1 clang-tidy -p "$build" --quiet 2>/dev/null >/tmp/dpm-tidy.$$ || {
      grep -E "(warning|error):" -A3 /tmp/dpm-tidy.$$; rm -f /tmp/dpm-tidy.$$; exit 1; }
  rm -f /tmp/dpm-tidy.$$
  echo "clang-tidy: ok"
fi
