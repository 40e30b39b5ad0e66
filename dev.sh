#!/usr/bin/env bash
# One entry point for a fresh machine: installs what is missing, builds, and runs.
#   ./dev.sh demo [OUT.png]   build, then turn the built-in synthetic burst into a long exposure
#   ./dev.sh test             build, then run every test (again with the vector kernels forced off)
#   ./dev.sh asan             every test under AddressSanitizer and UBSan
#   ./dev.sh tsan             every test under ThreadSanitizer
#   ./dev.sh cross            cross-build for arm64 and run the tests under qemu-aarch64
#   ./dev.sh footage-bench    time whole tool runs on generated footage (bench/footage.sh)
set -euo pipefail
cd "$(dirname "$0")"

jobs=$(nproc 2>/dev/null || echo 2)

install_missing() {
  local missing=()
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "dev.sh: installing ${missing[*]}" >&2
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# The tool's readers and writers: FFmpeg's libraries, libjpeg-turbo, libpng, libdeflate.
base_packages=(cmake make g++ pkg-config libgtest-dev libbenchmark-dev libpng-dev zlib1g-dev
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libturbojpeg0-dev libdeflate-dev)

build() {  # build PRESET
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1" -j "$jobs"
}

case "${1:-}" in
  demo)
    install_missing "${base_packages[@]}"
    build release
    ./build/bin/velmora demo -o "${2:-velmora-demo.png}"
    ;;
  test)
    install_missing "${base_packages[@]}"
    build release
    ctest --preset release
    # The same suite on the plain scalar kernels: the vector paths must not hide a wrong definition.
    VELMORA_ISA=scalar ctest --preset release
    ;;
  asan)
    install_missing "${base_packages[@]}"
    build asan
    ctest --preset asan
    ;;
  tsan)
    install_missing "${base_packages[@]}"
    build tsan
    ctest --preset tsan
    ;;
  cross)
    install_missing "${base_packages[@]}" googletest g++-aarch64-linux-gnu qemu-user
    build aarch64
    ctest --preset aarch64
    VELMORA_ISA=scalar ctest --preset aarch64
    ;;
  footage-bench)
    install_missing "${base_packages[@]}" ffmpeg imagemagick hyperfine time
    build release
    bench/footage.sh
    ;;
  *)
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print } /^set/ { exit }' "$0"
    exit 2
    ;;
esac
