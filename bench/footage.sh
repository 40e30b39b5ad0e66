#!/usr/bin/env bash
# Speed and memory of whole velmora runs on footage, beside the tools a user would compare with,
# all in one run on one machine:
#   30 raw 1920x1080 NV12 frames to PNG, against ImageMagick averaging the same frames as PNG;
#   a 10-second 1080p H.264 video (300 frames) to JPEG, against FFmpeg only decoding it;
#   the same video three times over (900 frames): memory must not grow with the length.
# Usage: bench/footage.sh [VELMORA]  (default build/bin/velmora; ./dev.sh footage-bench builds
# it and installs ffmpeg, imagemagick, hyperfine and GNU time first).
set -euo pipefail
cd "$(dirname "$0")/.."
velmora=$(realpath "${1:-build/bin/velmora}")
runs=${RUNS:-5}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

echo "footage.sh: making the footage in $work" >&2
# Camera-like frames: the moving test pattern with some sensor noise that changes every frame.
ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -vf "noise=alls=6:allf=t" \
  -frames:v 30 -pix_fmt nv12 -f rawvideo frames.nv12
split -b $((1920 * 1080 * 3 / 2)) -d -a 2 --additional-suffix=.nv12 frames.nv12 f
ffmpeg -v error -f rawvideo -pix_fmt nv12 -video_size 1920x1080 -i frames.nv12 -pix_fmt rgb24 \
  p%02d.png
rm frames.nv12
ffmpeg -v error -f lavfi -i "testsrc2=size=1920x1080:rate=30" -vf "noise=alls=6:allf=t" -t 10 \
  -c:v libx264 -preset fast -pix_fmt yuv420p video.mp4

hyperfine --style basic --warmup 1 --runs "$runs" --export-csv times.csv \
  -n "velmora 30 raw frames -> PNG" "$velmora longexp --size 1920x1080 f*.nv12 -o raw.png" \
  -n "ImageMagick mean of 30 PNG -> PNG" "convert p*.png -evaluate-sequence mean im.png" \
  -n "ffmpeg decode only" "ffmpeg -v error -i video.mp4 -f null -" \
  -n "velmora video -> JPEG" "$velmora longexp video.mp4 -o video.jpg" >&2

peak() {  # peak resident memory of a command, in MB
  /usr/bin/time -f "%M" -o rss.txt "$@" >/dev/null 2>&1
  echo $(( $(cat rss.txt) / 1024 ))
}

echo
echo "| run | mean wall time | peak memory |"
echo "| --- | --- | --- |"
awk -F, 'NR > 1 { printf "%s|%.3f\n", $1, $2 }' times.csv > means.txt
mean() { awk -F'|' -v n="$1" '$1 == n { print $2 }' means.txt; }
raw=$(mean "velmora 30 raw frames -> PNG")
im=$(mean "ImageMagick mean of 30 PNG -> PNG")
decode=$(mean "ffmpeg decode only")
video=$(mean "velmora video -> JPEG")
echo "| velmora, 30 raw 1080p frames -> PNG | $raw s | $(peak "$velmora" longexp --size 1920x1080 f*.nv12 -o raw.png) MB |"
echo "| ImageMagick, the same 30 frames as PNG -> PNG | $im s | $(peak convert p*.png -evaluate-sequence mean im.png) MB |"
echo "| FFmpeg, decoding the 10 s 1080p H.264 video | $decode s | $(peak ffmpeg -v error -i video.mp4 -f null -) MB |"
echo "| velmora, the video -> JPEG (300 frames) | $video s | $(peak "$velmora" longexp video.mp4 -o video.jpg) MB |"
echo "| velmora, the video three times -> JPEG (900 frames) | | $(peak "$velmora" longexp video.mp4 video.mp4 video.mp4 -o video3.jpg) MB |"
echo
awk -v a="$raw" -v b="$im" -v c="$video" -v d="$decode" -v s="$(stat -c %s raw.png)" 'BEGIN {
  printf "ImageMagick / velmora (raw -> PNG): %.1fx faster (PNG of %.0f KB)\n", b / a, s / 1024
  printf "velmora video / FFmpeg decode: %.2fx the decoding time\n", c / d
}'
echo "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
