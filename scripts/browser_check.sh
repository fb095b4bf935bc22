#!/usr/bin/env bash
# Interoperability check, run by hand (not part of CI: it needs Chromium and
# takes tens of seconds): encodes images with `kivjpeg encode`, has headless
# Chromium decode each JPEG into a canvas, and compares the canvas pixels
# with djpeg's decode of the same file. Passes when every PSNR exceeds 40 dB.
#   scripts/browser_check.sh [BUILD-DIR]     (default: build/x64)
# Needs: chromium, libjpeg-turbo-progs (djpeg), python3.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/x64}
tool=$build/tools/kivjpeg
corpus=$(pwd)/../shared/corpus
work=$(mktemp -d)
trap '[ -n "${KEEP:-}" ] && echo "kept $work" || rm -rf "$work"' EXIT

need=()
command -v chromium >/dev/null || need+=(chromium)
command -v djpeg >/dev/null || need+=(libjpeg-turbo-progs)
command -v python3 >/dev/null || need+=(python3)
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq && apt-get install -y -qq "${need[@]}" >/dev/null
fi
[ -x "$tool" ] || { cmake -S . -B "$build" >/dev/null && cmake --build "$build" --target kivjpeg; }

# The encodings under test.
"$tool" demo "$work/demo" --size 480x320 >/dev/null
cases=()
for q in 50 90 100; do
  for s in 444 422 420 411 gray; do
    "$tool" encode "$corpus/samples/testorig.ppm" "$work/orig-q$q-$s.jpg" --quality "$q" --sampling "$s"
    cases+=("$work/orig-q$q-$s.jpg")
  done
done
"$tool" encode "$corpus/samples/testorig.ppm" "$work/orig-hq-rst.jpg" --hq --restart 3
"$tool" encode "$corpus/samples/shira_bird8.bmp" "$work/bird.jpg" --quality 75
cases+=("$work/orig-hq-rst.jpg" "$work/bird.jpg" "$work/demo/q90-420.jpg" "$work/demo/q85-411.jpg" "$work/demo/q50-444.jpg")

# One page holding every image as a data: URL (no canvas tainting), which
# prints each decoded canvas as base64 RGBA into the document.
python3 - "$work/page.html" "${cases[@]}" <<'EOF'
import base64, sys
page, files = sys.argv[1], sys.argv[2:]
imgs = "".join('<img id="i%d" src="data:image/jpeg;base64,%s">' %
               (n, base64.b64encode(open(f, "rb").read()).decode()) for n, f in enumerate(files))
open(page, "w").write("""<!doctype html><html><body>%s<pre id="out"></pre><script>
window.onload = function () {
  var lines = [];
  for (var n = 0; n < %d; n++) {
    var img = document.getElementById("i" + n), c = document.createElement("canvas");
    c.width = img.naturalWidth; c.height = img.naturalHeight;
    var g = c.getContext("2d"); g.drawImage(img, 0, 0);
    var d = g.getImageData(0, 0, c.width, c.height).data, s = "";
    for (var i = 0; i < d.length; i += 8192) s += String.fromCharCode.apply(null, d.subarray(i, i + 8192));
    lines.push("IMG " + n + " " + c.width + " " + c.height + " " + btoa(s));
  }
  document.getElementById("out").textContent = lines.join("\\n");
};
</script></body></html>""" % (imgs, len(files)))
EOF

chromium --headless --no-sandbox --disable-gpu --force-color-profile=srgb \
  --virtual-time-budget=20000 --dump-dom "file://$work/page.html" 2>/dev/null > "$work/dom.html"

# Canvas pixels to PPM, then compare with djpeg.
python3 - "$work" "${cases[@]}" <<'EOF'
import base64, re, sys
work, files = sys.argv[1], sys.argv[2:]
dom = open(work + "/dom.html").read()
found = re.findall(r"IMG (\d+) (\d+) (\d+) ([A-Za-z0-9+/=]+)", dom)
if len(found) != len(files):
    sys.exit("browser decoded %d of %d images" % (len(found), len(files)))
for n, w, h, data in found:
    rgba = base64.b64decode(data)
    rgb = bytes(b for i, b in enumerate(rgba) if i % 4 != 3)
    with open("%s/browser-%s.ppm" % (work, n), "wb") as f:
        f.write(b"P6\n%s %s\n255\n" % (w.encode(), h.encode()) + rgb)
EOF
fail=0
for n in "${!cases[@]}"; do
  djpeg -ppm "${cases[$n]}" > "$work/djpeg-$n.ppm"    # gray files come out as PGM
  result=$("$tool" compare "$work/browser-$n.ppm" "$work/djpeg-$n.ppm")
  psnr=$(sed -n 's/.*PSNR \([0-9.]*\|inf\) dB.*/\1/p' <<<"$result")
  printf '%-28s %s\n' "$(basename "${cases[$n]}")" "$result"
  if [ "$psnr" != inf ] && ! python3 -c "import sys; sys.exit(0 if float('$psnr') > 40 else 1)"; then
    fail=1
  fi
done
[ $fail -eq 0 ] && echo "browser check passed: every image above 40 dB" || { echo "browser check FAILED"; exit 1; }
