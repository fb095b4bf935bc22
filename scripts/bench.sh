#!/usr/bin/env bash
# Builds kiv_bench (x86-64, Release) and runs it on the Debian photographs
# and the corpus images, then writes the results with the machine they ran on
# into docs/performance.md between the "bench:begin" and "bench:end" marks.
#   BENCH_ALL=1      every photograph under /usr/share/backgrounds
#   BENCH_MIN_TIME=S minimum measuring time per case and codec (default 0.3)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

need=()
[ -f /usr/include/turbojpeg.h ] || need+=(libturbojpeg0-dev)
[ -f /usr/include/stb/stb_image.h ] || need+=(libstb-dev)
command -v cjpeg >/dev/null || need+=(libjpeg-turbo-progs)
[ -d /usr/share/backgrounds/mate ] || need+=(mate-backgrounds)
[ -d /usr/share/backgrounds/ukui ] || need+=(ukui-wallpapers)
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq "${need[@]}" >/dev/null
fi

cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DKIV_TESTS=OFF >/dev/null
cmake --build build/bench -j "$(nproc)" --target kiv_bench >/dev/null
bench=build/bench/bench/kiv_bench

corpus=$root/../shared/corpus/samples
bg=/usr/share/backgrounds
large=$bg/mate/abstract/Elephants_5640x3172.jpg
if [ "${BENCH_ALL:-0}" = 1 ]; then
  mapfile -t photos < <(find "$bg" -name '*.jpg' | sort)
else  # one photograph per size class, 1 to 18 megapixels
  photos=("$bg/mate/nature/GreenMeadow.jpg" "$bg/mate/abstract/Elephants.jpg"
          "$bg/mate/nature/Garden.jpg" "$bg/string.jpg" "$bg/the-mouse.jpg" "$large")
fi
images=("$corpus/testorig.ppm" "$corpus/shira_bird8.bmp" "${photos[@]}")

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
"$bench" --tmp "$tmp" --min-time "${BENCH_MIN_TIME:-0.3}" "${images[@]}" >"$tmp/table.md"
"$bench" --heap --tmp "$tmp" "$large" >"$tmp/heap.md"

{
  echo "Measured $(date -u '+%Y-%m-%d %H:%M UTC') on $(nproc) cores of" \
       "\"$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')\"," \
       "$(g++ --version | head -1), commit $(git rev-parse --short HEAD)," \
       "libjpeg-turbo $(dpkg-query -W -f '${Version}' libturbojpeg0-dev 2>/dev/null || echo '?')," \
       "stb $(dpkg-query -W -f '${Version}' libstb-dev 2>/dev/null || echo '?')."
  echo
  echo "Images: ${images[*]##*/}."
  echo
  echo "### Peak heap of the library while decoding"
  echo
  cat "$tmp/heap.md"
  echo
  cat "$tmp/table.md"
} >"$tmp/section.md"

doc=docs/performance.md
python3 - "$doc" "$tmp/section.md" <<'PY'
import sys
doc, section = sys.argv[1], open(sys.argv[2]).read()
text = open(doc).read()
begin, end = "<!-- bench:begin -->", "<!-- bench:end -->"
head, rest = text.split(begin, 1)
tail = rest.split(end, 1)[1]
open(doc, "w").write(head + begin + "\n" + section + "\n" + end + tail)
PY
echo "wrote $doc"
