#!/usr/bin/env bash
# Builds the library for both targets (32-bit x86 and x86-64) and runs the
# whole test suite on each, then once more on x86-64 under AddressSanitizer
# and UBSan. Installs what it needs on a fresh Debian machine.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=$(nproc 2>/dev/null || echo 2)

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v python3 >/dev/null || need+=(python3)
echo 'int main(){}' | g++ -m32 -x c++ - -o /dev/null 2>/dev/null || need+=(g++-multilib)
[ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
command -v djpeg >/dev/null || need+=(libjpeg-turbo-progs)
[ -f /usr/include/jpeglib.h ] || need+=(libjpeg62-turbo-dev)  # the CMYK test oracle links it
[ -x /usr/bin/convert ] || need+=(imagemagick)
command -v readelf >/dev/null || need+=(binutils)
[ -d /usr/share/backgrounds/mate ] || need+=(mate-backgrounds)
[ -f /usr/share/backgrounds/2004default.jpg ] || need+=(ukui-wallpapers)
[ -f /usr/include/png.h ] || need+=(libpng-dev)
command -v pkg-config >/dev/null || need+=(pkg-config)
command -v ffmpeg >/dev/null || need+=(ffmpeg)
command -v clang++-14 >/dev/null || need+=(clang-14)
compgen -G '/usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a' >/dev/null || need+=(libclang-rt-14-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  export DEBIAN_FRONTEND=noninteractive
  # A list that fails to refresh (a mirror in sync) leaves the old one.
  apt-get update -qq || true
  apt-get install -y -qq "${need[@]}" >/dev/null
fi

build() {  # name, extra cmake arguments...
  local dir=build/$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

build x86 -DCMAKE_TOOLCHAIN_FILE="$root/cmake/i686-linux.cmake"
build x64
if [ "${KIV_SKIP_SANITIZE:-0}" != 1 ]; then
  build x64-sanitize -DKIV_SANITIZE=ON
fi
if [ "${KIV_SKIP_ROBUSTNESS:-0}" != 1 ]; then
  # The concurrency test alone, under ThreadSanitizer, in a small build.
  tsan=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_{C,CXX}_FLAGS=-fsanitize=thread
        -DCMAKE_{EXE,SHARED}_LINKER_FLAGS=-fsanitize=thread)
  cmake -S . -B build/x64-tsan "${tsan[@]}" >/dev/null
  cmake --build build/x64-tsan -j "$jobs" --target test_api
  TSAN_OPTIONS=halt_on_error=1 build/x64-tsan/tests/test_api --gtest_filter='Concurrency*'
  # Each fuzz target for about a minute on its seeds; any finding fails.
  bash fuzz/build.sh build/fuzz
  bash fuzz/run.sh "${KIV_FUZZ_SECONDS:-60}" build/fuzz
fi
steps=3  # x86, x64 and sanitizer suites; then TSan and fuzzing
[ "${KIV_SKIP_SANITIZE:-0}" = 1 ] && steps=$((steps - 1))
[ "${KIV_SKIP_ROBUSTNESS:-0}" = 1 ] || steps=$((steps + 2))
echo "test.sh: ${steps} passed, 0 failed"
