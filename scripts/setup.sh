#!/usr/bin/env bash
# Installs the Debian packages the build needs, when they are missing.
set -euo pipefail
packages=(cmake ninja-build g++ gcc libgtest-dev libgmock-dev libbenchmark-dev libreadline-dev clang-format
  clang libclang-rt-14-dev python3    # clang and its runtimes: the fuzz preset; python3: failure-coverage.py
  nlohmann-json3-dev gnuplot-nox jq)  # the traffic tools' JSON and the bandwidth plot
missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${missing[@]}"
fi
