#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UBSan)
# into build/fuzz and writes their seed corpora there.
#   fuzz/build.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build/fuzz}
cc=$(command -v clang-14 || command -v clang)
cxx=$(command -v clang++-14 || command -v clang++)
CC=$cc CXX=$cxx cmake -S fuzz -B "$dir" >/dev/null
cmake --build "$dir" -j "$(nproc 2>/dev/null || echo 2)"
rm -rf "$dir/seeds"
"$dir/make_seeds" "$(pwd)/../shared/corpus" "$dir/seeds/decode" "$dir/seeds/encode" "$dir/seeds/api"
# Progressive and restart-marker variants of a few encoder streams, when the
# independent tool is at hand.
if command -v jpegtran >/dev/null; then
  for f in "$dir"/seeds/decode/encoded-*-p0 "$dir"/seeds/decode/conformance-A1-p0; do
    [ -f "$f" ] || continue
    for opt in "-progressive" "-restart 1" "-progressive -restart 2"; do
      name="$f-$(echo "$opt" | tr -dc 'a-z0-9')"
      { printf '\001\020\000\003'; tail -c +5 "$f" | jpegtran $opt 2>/dev/null; } > "$name" || rm -f "$name"
    done
  done
fi
