#!/bin/sh
# Times `velmora longexp --align` on a hand-held burst of 30 frames of 1920x1080, beside the same
# burst folded without alignment. The frames: a photograph-like grey scene of flat-toned
# rectangles on shading, each frame cut from it a few pixels off (integer shifts), neutral chroma.
# usage: bench/align.sh [BUILD_DIR]   (default: build)
set -eu
build=${1:-build}
tool=$build/bin/velmora
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

python3 - "$work/burst.nv12" <<'PY'
import random, sys
W, H, M, N = 1920, 1080, 16, 30
rnd = random.Random(3)
w2 = W + 2 * M
scene = [bytearray(bytes([(60 + (x * 80) // w2 + (y * 40) // (H + 2 * M)) for x in range(w2)]))
         for y in range(H + 2 * M)]
for _ in range(1500):
    x0, y0 = rnd.randrange(w2 - 8), rnd.randrange(H + 2 * M - 8)
    w, h, v = rnd.randrange(6, 90), rnd.randrange(6, 90), rnd.randrange(256)
    for y in range(y0, min(y0 + h, H + 2 * M)):
        row = scene[y]
        x1 = min(x0 + w, w2)
        row[x0:x1] = bytes([v]) * (x1 - x0)
chroma = bytes([128]) * (W * H // 2)
with open(sys.argv[1], "wb") as f:
    for k in range(N):
        dx, dy = (0, 0) if k == 0 else (rnd.randrange(-5, 6), rnd.randrange(-5, 6))
        f.write(b"".join(bytes(scene[M + dy + y][M + dx:M + dx + W]) for y in range(H)))
        f.write(chroma)
PY

for mode in "" "--align"; do
  echo "velmora longexp $mode (30 frames of 1920x1080):"
  /usr/bin/time -f "  %e s wall, %U s user + %S s system CPU" \
    "$tool" longexp $mode --size 1920x1080 "$work/burst.nv12" -o "$work/out.yuv"
done
