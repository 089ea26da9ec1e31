#!/usr/bin/env bash
# clang-format over every C++ source of the project.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.cpp' '*.h' | grep -v '^build/')
clang-format --dry-run -Werror $files
echo "clang-format: ok"
