#!/usr/bin/env bash
# One entry point for a fresh machine: installs what is missing, builds, and runs.
#   ./dev.sh demo [OUT.png]   build, then turn the built-in synthetic burst into a long exposure
#   ./dev.sh test             build, then run every test (again with the vector kernels forced off)
#   ./dev.sh asan             every test under AddressSanitizer and UBSan
#   ./dev.sh tsan             every test under ThreadSanitizer
#   ./dev.sh cross            cross-build for arm64 and run the tests under qemu-aarch64
#   ./dev.sh fuzz [SECONDS [TARGET...]]  build the libFuzzer targets (clang), replay the kept
#                             findings under fuzz/regressions/, then fuzz each target (all by
#                             default) for SECONDS (20) from its seeds
#   ./dev.sh footage-bench    time whole tool runs on generated footage (bench/footage.sh)
#   ./dev.sh package          install the library into a temporary prefix, then build and run
#                             apps against the installed package (CMake config and pkg-config)
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

# Replays fuzz/regressions/<target>/ and fuzzes each target named after $1 (every one when none
# is) for $1 seconds from the seeds it writes itself; any crash, leak or undefined behaviour fails the run and leaves its input under
# build-fuzz/fuzz-run/<target>/artifacts/.
run_fuzzers() {
  local work=build-fuzz/fuzz-run passed=0 failed=0 seconds=$1 exes=()
  shift
  for name in "$@"; do exes+=("build-fuzz/bin/${name}_fuzz"); done
  [ $# -gt 0 ] || exes=(build-fuzz/bin/*_fuzz)
  export ASAN_OPTIONS="abort_on_error=1" UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
  export LSAN_OPTIONS="suppressions=$PWD/tests/lsan.supp"
  for exe in "${exes[@]}"; do
    local name ok=1
    name=$(basename "$exe" _fuzz)
    rm -rf "${work:?}/$name"
    mkdir -p "$work/$name/seeds" "$work/$name/corpus" "$work/$name/artifacts"
    VELMORA_FUZZ_SEEDS="$work/$name/seeds" "$exe"
    local flags=(-close_fd_mask=1 -timeout=10 -rss_limit_mb=2048
                 -artifact_prefix="$work/$name/artifacts/")
    if compgen -G "fuzz/regressions/$name/*" >/dev/null; then
      "$exe" "${flags[@]}" fuzz/regressions/"$name"/* 2>"$work/$name/replay.log" ||
        { ok=0; tail -n 40 "$work/$name/replay.log"; }
    fi
    "$exe" "${flags[@]}" -max_total_time="$seconds" "$work/$name/corpus" "$work/$name/seeds" \
      2>"$work/$name/fuzz.log" || { ok=0; tail -n 40 "$work/$name/fuzz.log"; }
    echo "fuzz: $name: $(grep -ho 'Done [0-9]* runs in [0-9]* second' "$work/$name/fuzz.log")"
    if [ $ok -eq 1 ]; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
  done
  echo "fuzz: $passed passed, $failed failed"
  [ $failed -eq 0 ]
}

# The library alone (nothing of GoogleTest, benchmark or libpng), installed into a temporary prefix;
# then tests/package, built out of tree against that prefix only, once through
# find_package(Velmora CONFIG) and once through pkg-config, and run.
package() {
  build package
  local tmp
  tmp=$(mktemp -d)
  trap "rm -rf '$tmp'" EXIT
  local prefix="$tmp/prefix"
  cmake --install build-package --prefix "$prefix" >/dev/null
  # Only the shared library, headers and package files: no static internals, no test helpers.
  if find "$prefix" -name '*.a' | grep .; then
    echo "dev.sh: a static library was installed" >&2
    exit 1
  fi
  local lib
  lib=$(find "$prefix" -name 'libVelmora.so.*' -type f)
  readelf -d "$lib" | grep -q 'SONAME.*libVelmora\.so\.[0-9]' || {
    echo "dev.sh: $lib has no versioned SONAME" >&2
    exit 1
  }

  cmake -S tests/package -B "$tmp/via-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$tmp/via-cmake" -j "$jobs"

  local pcdir
  pcdir=$(dirname "$(find "$prefix" -name velmora.pc)")
  mkdir -p "$tmp/via-pkg-config"
  (
    export PKG_CONFIG_PATH="$pcdir"
    cflags=$(pkg-config --cflags velmora)
    libs="$(pkg-config --libs velmora) -Wl,-rpath,$(pkg-config --variable=libdir velmora)"
    set -x
    ${CC:-cc} -std=c11 -Wall -Wextra -pedantic -Werror $cflags tests/package/table_app.c \
      $libs -o "$tmp/via-pkg-config/table_app"
    ${CXX:-c++} -std=c++17 -Wall -Wextra -pedantic -Werror $cflags \
      tests/package/toolkit_app.cpp $libs -o "$tmp/via-pkg-config/toolkit_app"
  )

  # The library logs every step on standard output; show it only when an app fails.
  for app in via-cmake/table_app via-cmake/toolkit_app via-pkg-config/table_app \
             via-pkg-config/toolkit_app; do
    if ! "$tmp/$app" >"$tmp/log" 2>&1; then
      cat "$tmp/log"
      echo "dev.sh: $app failed" >&2
      exit 1
    fi
    echo "${app%%/*}: $(grep -h '_app: ok' "$tmp/log")"
  done
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
  fuzz)
    install_missing "${base_packages[@]}" clang libclang-rt-14-dev
    build fuzz
    run_fuzzers "${2:-20}" "${@:3}"
    ;;
  footage-bench)
    install_missing "${base_packages[@]}" ffmpeg imagemagick hyperfine time
    build release
    bench/footage.sh
    ;;
  package)
    install_missing cmake make g++ pkg-config
    package
    ;;
  *)
    awk 'NR > 1 && /^#/ { sub(/^# ?/, ""); print } /^set/ { exit }' "$0"
    exit 2
    ;;
esac
