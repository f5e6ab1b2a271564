#!/usr/bin/env bash
# The back-ends beside FFmpeg on the same files, in one run, with the same number of
# decoder threads on both sides; prints a table of figures and ratios.
#
#   bench/compare_backends.sh [BUILD_DIR]     (default: build)
#
# Media (10 s of 1080p H.264, ProRes and MJPEG, 10 s of 720p Y4M) is generated once into
# BUILD_DIR/bench-media with the ffmpeg program. Every timing is the best of RUNS runs
# (default 3), each side measured the same way, with the file already in the page cache.
set -euo pipefail

BUILD=${1:-build}
RUNS=${RUNS:-3}
THREADS=${THREADS:-$(nproc)}
MEDIA=$BUILD/bench-media
READS=$BUILD/bench/bench_backend_reads
DIRECT=$BUILD/bench/bench_direct_decode
export PLAYFILE_FfmpegThreads=$THREADS
export PLAYFILE_LOG=${PLAYFILE_LOG:-$BUILD/bench-media/playfile.log}
mkdir -p "$MEDIA"

make_media() {
    local name=$1; shift
    [ -s "$MEDIA/$name" ] || ffmpeg -nostdin -v error -y "$@" "$MEDIA/$name"
}
# Moving pictures with fine grain, so that the codecs have real work.
SRC1080="-f lavfi -i testsrc2=size=1920x1080:rate=25:duration=10 -vf noise=alls=8:allf=t"
make_media h264.mp4 $SRC1080 -c:v libx264 -preset veryfast -crf 22 -g 50 -bf 3 -pix_fmt yuv420p
make_media prores.mov $SRC1080 -c:v prores_ks -profile:v 2
make_media mjpeg.avi $SRC1080 -c:v mjpeg -q:v 3 -pix_fmt yuvj420p
make_media y4m720.y4m -f lavfi -i testsrc2=size=1280x720:rate=25:duration=10 -pix_fmt yuv420p

warm() { cat "$1" > /dev/null; }
# Best (largest) value of KEY over RUNS runs of a command printing key=value figures.
best_max() { local key=$1; shift; for _ in $(seq "$RUNS"); do "$@"; done | grep -o "$key=[0-9.]*" | cut -d= -f2 | sort -g | tail -1; }
best_min() { local key=$1; shift; for _ in $(seq "$RUNS"); do "$@"; done | grep -o "$key=[0-9.]*" | cut -d= -f2 | sort -g | head -1; }
ffmpeg_fps() {
    local file=$1 frames=$2
    ffmpeg -hide_banner -nostdin -benchmark -threads "$THREADS" -i "$file" -f null - 2>&1 |
        grep -o 'rtime=[0-9.]*' | cut -d= -f2 | awk -v n="$frames" '{ printf "fps=%.2f\n", n / $1 }'
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a / b }'; }

ROWS=()
row() { ROWS+=("$(printf '%-44s %14s %14s %8s' "$1" "$2" "$3" "$4")"); }

for f in h264.mp4 prores.mov mjpeg.avi; do
    file=$MEDIA/$f
    warm "$file"
    frames=$("$READS" sequential "$file" 1 | grep -o 'frames=[0-9]*' | cut -d= -f2)
    ff=$(best_max fps ffmpeg_fps "$file" "$frames")
    one=$(best_max fps_whole "$READS" sequential "$file" 1)
    four=$(best_max fps_whole "$READS" sequential "$file" 4)
    row "$f sequential fps, 1 issuer" "$one" "$ff" "$(ratio "$one" "$ff")"
    row "$f sequential fps, 4 in flight" "$four" "$ff" "$(ratio "$four" "$ff")"
    lib=$(best_min random_mean_ms "$READS" random "$file" 200 2024)
    # The yardstick gets the threading that suits it: slice threads for single pictures of
    # intra-only codecs, frame threads for long-GOP ones.
    kind=frame; [ "$f" = h264.mp4 ] || kind=slice
    direct=$(best_min direct_mean_ms "$DIRECT" "$file" 200 2024 "$THREADS" "$kind")
    row "$f random frame, mean ms (200)" "$lib" "$direct" "$(ratio "$lib" "$direct")"
done

h264=$MEDIA/h264.mp4
first=$(best_min first_mean_ms "$READS" first "$h264" 10)
row "h264.mp4 first frame after open+seek, ms" "$first" "-" "-"
back=$("$READS" backward "$h264" 60)
row "h264.mp4 step back one frame, mean ms" "$(echo "$back" | grep -o 'back_mean_ms=[0-9.]*' | cut -d= -f2)" "-" "-"
row "h264.mp4 step back one frame, max ms" "$(echo "$back" | grep -o 'back_max_ms=[0-9.]*' | cut -d= -f2)" "-" "-"
for f in h264.mp4 prores.mov; do
    same=$("$READS" same-frame "$MEDIA/$f" 8)
    row "$f same frame x8 issuers: decodes" "$(echo "$same" | grep -o ' decodes=[0-9]*' | cut -d= -f2)" \
        "$(echo "$same" | grep -o 'decodes_one_issuer=[0-9]*' | cut -d= -f2)" "(1 issuer)"
done

lib_kb=$( { /usr/bin/time -f 'maxrss=%M' "$READS" sequential "$h264" 4 > /dev/null; } 2>&1 | grep -o 'maxrss=[0-9]*' | cut -d= -f2)
ff_kb=$( { /usr/bin/time -f 'maxrss=%M' ffmpeg -nostdin -v error -threads "$THREADS" -i "$h264" -f null - ; } 2>&1 | grep -o 'maxrss=[0-9]*' | cut -d= -f2)
row "h264.mp4 peak memory playing, MB" "$((lib_kb / 1024))" "$((ff_kb / 1024))" "$(ratio "$lib_kb" "$ff_kb")"

y4m=$MEDIA/y4m720.y4m
warm "$y4m"
frame_bytes=$((1280 * 720 * 3 / 2))
plain=$(best_max mbps "$READS" read "$y4m" "$frame_bytes" 20)
y4m_fps=$(best_max fps "$READS" sequential "$y4m" 1 20)
y4m_mbps=$(awk -v f="$y4m_fps" -v b="$frame_bytes" 'BEGIN { printf "%.1f", f * b / 1e6 }')
row "y4m720.y4m sequential MB/s (vs plain read)" "$y4m_mbps" "$plain" "$(ratio "$y4m_mbps" "$plain")"

printf '%-44s %14s %14s %8s\n' "measure ($THREADS decoder threads)" "playfile" "ffmpeg/direct" "ratio"
printf '%s\n' "${ROWS[@]}"
