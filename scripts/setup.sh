#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and tools need,
# when they are missing.  Safe to run any number of times.
set -euo pipefail

packages=(
  build-essential cmake make pkg-config
  libgtest-dev libgmock-dev       # tests
  libbenchmark-dev                # benchmarks
  libsqlite3-dev                  # configuration store
  libsimdjson-dev                 # its document reader
  rapidjson-dev gnuplot-nox       # benchmarks: JSON library comparison, cost plot
  libcurl4-openssl-dev libssl-dev # the etcd backend (HTTP); base64 (libcrypto)
  etcd-server etcd-client         # etcd for the replicated-store tests
  nlohmann-json3-dev libcli11-dev # tools
  clang libclang-rt-dev           # fuzz harnesses (libFuzzer, sanitizers)
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    SUDO="sudo"
  else
    echo "setup: need root (or sudo) to install: ${missing[*]}" >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
