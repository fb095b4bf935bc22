#!/usr/bin/env bash
# Builds KivJPEG and its command-line tool and runs `kivjpeg demo`: a
# synthetic photograph encoded at several qualities, samplings and
# losslessly, decoded at full size, 1/2, 1/4, 1/8 and progressively, with a
# table of sizes, PSNR and speed. Installs what the build needs on a fresh
# Debian or Ubuntu machine.
#   scripts/demo.sh [OUTPUT-DIR]      (default: demo-output)
set -euo pipefail
cd "$(dirname "$0")/.."
out=${1:-demo-output}

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v g++ >/dev/null || need+=(g++)
command -v make >/dev/null || need+=(make)
[ -f /usr/include/png.h ] || need+=(libpng-dev)
command -v jpegtran >/dev/null || need+=(libjpeg-turbo-progs)   # progressive copy
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq "${need[@]}" >/dev/null
fi

cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DKIV_TESTS=OFF >/dev/null
cmake --build build/demo -j "$(nproc 2>/dev/null || echo 2)" --target kivjpeg
build/demo/tools/kivjpeg demo "$out"
echo
echo "Files are in $out/ (open original.png next to q50-420.png, or look at the"
echo "q90-420-pass-NN.png images to watch a progressive stream refine)."
echo "Try also: build/demo/tools/kivjpeg info $out/q90-420.jpg"
