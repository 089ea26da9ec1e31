#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
set -euo pipefail
pkgs=(cmake ninja-build g++ clang clang-format clang-tidy libclang-rt-14-dev pkg-config
      protobuf-c-compiler libprotobuf-c-dev protobuf-compiler libprotobuf-dev
      libgtest-dev libgmock-dev libbenchmark-dev libreadline-dev graphviz
      redis-server redis-tools libhiredis-dev libyaml-cpp-dev python3-clang-14)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
