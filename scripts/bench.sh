#!/usr/bin/env bash
# Builds kiv_bench (Release) for both targets, x86-64 and 32-bit x86, runs
# each on the Debian photographs and the corpus images against that target's
# libjpeg-turbo (the 32-bit one is Debian's multiarch libturbojpeg0:i386)
# and stb_image, then writes both tables, the routines' level and the machine
# into docs/performance.md between the "bench:begin" and "bench:end" marks.
#   BENCH_ALL=1      every photograph under /usr/share/backgrounds
#   BENCH_MIN_TIME=S minimum measuring time per case and codec (default 0.3)
#   BENCH_TARGETS    "x64 x86" (default), or one of them
#   BENCH_LEVEL      portable, sse2 or avx2 (default: the widest available)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

targets=${BENCH_TARGETS:-x64 x86}
need=()
[ -f /usr/include/turbojpeg.h ] || need+=(libturbojpeg0-dev)
if [[ " $targets " == *" x86 "* ]]; then
  [ -e /usr/lib/i386-linux-gnu/libturbojpeg.so.0 ] || need+=(libturbojpeg0:i386)
  echo 'int main(){}' | g++ -m32 -x c++ - -o /dev/null 2>/dev/null || need+=(g++-multilib)
  dpkg --print-foreign-architectures | grep -qx i386 || dpkg --add-architecture i386
fi
[ -f /usr/include/stb/stb_image.h ] || need+=(libstb-dev)
command -v cjpeg >/dev/null || need+=(libjpeg-turbo-progs)
[ -d /usr/share/backgrounds/mate ] || need+=(mate-backgrounds)
[ -f /usr/share/backgrounds/string.jpg ] || need+=(ukui-wallpapers)
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  # A list that fails to refresh (a mirror in sync) leaves the old one.
  apt-get update -qq || true
  apt-get install -y -qq "${need[@]}" >/dev/null
fi

declare -A dir=([x64]=build/bench [x86]=build/bench86)
declare -A toolchain=([x64]="" [x86]="-DCMAKE_TOOLCHAIN_FILE=$root/cmake/i686-linux.cmake")
declare -A title=([x64]="x86-64" [x86]="32-bit x86")
for t in $targets; do
  cmake -S . -B "${dir[$t]}" ${toolchain[$t]} -DCMAKE_BUILD_TYPE=Release -DKIV_TESTS=OFF >/dev/null
  cmake --build "${dir[$t]}" -j "$(nproc)" --target kiv_bench >/dev/null
done
level=()
[ -n "${BENCH_LEVEL:-}" ] && level=(--level "$BENCH_LEVEL")

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
for t in $targets; do
  bench=${dir[$t]}/bench/kiv_bench
  echo "running the ${title[$t]} benchmark" >&2
  "$bench" "${level[@]}" --tmp "$tmp" --min-time "${BENCH_MIN_TIME:-0.3}" "${images[@]}" >"$tmp/table-$t.md"
done
bench=${dir[${targets%% *}]}/bench/kiv_bench
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
  for t in $targets; do
    echo
    echo "### ${title[$t]}, KivJPEG routines: $("${dir[$t]}/bench/kiv_bench" "${level[@]}" --level-info)"
    echo
    # One heading level down inside the target's section.
    sed 's/^#### /##### /; s/^### /#### /' "$tmp/table-$t.md"
  done
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
