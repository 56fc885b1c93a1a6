#!/usr/bin/env bash
# Loudness benchmark: kel loudness and kel normalize on MINUTES of 128 kb/s
# MP3 and AAC, 16-bit Apple Lossless and WAVE (made here with sox, lame and
# ffmpeg), each figure beside the peer doing the same job in the same run:
# ffmpeg's ebur128 filter (true peak on) and mp3gain's analysis for the
# measure; cp of the file for the lossless MP3/AAC gain; ffmpeg's volume
# filter with an Apple Lossless encode for ALAC. Times are the best of
# REPEATS runs (wall clock, seconds).
#
# usage: bench/bench_loudness.sh KEL [MINUTES] [REPEATS]   (KEL: the built tool)
set -euo pipefail

kel=${1:?usage: bench_loudness.sh KEL [MINUTES] [REPEATS]}
minutes=${2:-20}
repeats=${3:-1}
dir=$(mktemp -d "${TMPDIR:-/tmp}/kel-bench-loudness.XXXXXX")
trap 'rm -rf "$dir"' EXIT

best() { # best wall time of $repeats runs of "$@", output discarded
  local best_t="" t s e
  for _ in $(seq "$repeats"); do
    s=$(date +%s%N)
    "$@" >/dev/null 2>&1 || { echo "failed"; return; }
    e=$(date +%s%N)
    t=$((e - s))
    if [ -z "$best_t" ] || [ "$t" -lt "$best_t" ]; then best_t=$t; fi
  done
  awk -v ns="$best_t" 'BEGIN { printf "%.3f", ns / 1e9 }'
}

seconds=$((minutes * 60))
echo "making $minutes minutes of audio in $dir"
# Pink noise under a slow tremolo and a sweep: music-like level changes, so
# the gating and the range have work to do.
sox -n -r 44100 -b 16 -c 2 "$dir/a.wav" synth "$seconds" pinknoise synth "$seconds" sine mix 100-4000 \
  tremolo 0.05 60 gain -12
lame --quiet -b 128 "$dir/a.wav" "$dir/a.mp3"
ffmpeg -v error -y -i "$dir/a.wav" -c:a aac -b:a 128k "$dir/a.m4a"
ffmpeg -v error -y -i "$dir/a.wav" -c:a alac "$dir/alac.m4a"

printf '\n%-6s %-28s %10s   %-34s %10s\n' format kel seconds peer seconds
for f in a.mp3 a.m4a alac.m4a a.wav; do
  name=$f
  case $f in a.mp3) name=MP3 ;; a.m4a) name=AAC ;; alac.m4a) name=ALAC ;; a.wav) name=WAVE ;; esac
  k=$(best "$kel" loudness "$dir/$f")
  p=$(best ffmpeg -v error -nostats -i "$dir/$f" -af ebur128=peak=true -f null -)
  printf '%-6s %-28s %10s   %-34s %10s\n' "$name" "loudness" "$k" "ffmpeg ebur128=peak=true" "$p"
  if [ "$f" = a.mp3 ]; then
    cp "$dir/a.mp3" "$dir/g.mp3"
    p=$(best mp3gain -q -s s "$dir/g.mp3")
    printf '%-6s %-28s %10s   %-34s %10s\n' "" "" "" "mp3gain -s s (analysis)" "$p"
  fi
done

echo
mkdir -p "$dir/out"
for f in a.mp3 a.m4a; do
  name=MP3; [ "$f" = a.m4a ] && name=AAC
  k=$(best "$kel" normalize "$dir/$f" --target -23 -o "$dir/out/$f")
  p=$(best cp "$dir/$f" "$dir/out/copy-$f")
  printf '%-6s %-28s %10s   %-34s %10s\n' "$name" "normalize -23 (measure+save)" "$k" "cp" "$p"
  k=$(best "$kel" gain "$dir/$f" --db -6 -o "$dir/out/g-$f")
  printf '%-6s %-28s %10s\n' "$name" "gain -6 (the save alone)" "$k"
done
k=$(best "$kel" gain "$dir/alac.m4a" --db -6 -o "$dir/out/g-alac.m4a")
# 16-bit out as in: ffmpeg's volume filter otherwise hands the encoder
# 32-bit samples, and the file comes out 24-bit and twice the size.
p=$(best ffmpeg -v error -y -i "$dir/alac.m4a" -af volume=-6dB -c:a alac -sample_fmt s16p "$dir/out/f-alac.m4a")
printf '%-6s %-28s %10s   %-34s %10s\n' ALAC "gain -6 (save only)" "$k" "ffmpeg volume -c:a alac (s16p)" "$p"
k=$(best "$kel" normalize "$dir/alac.m4a" --target -23 -o "$dir/out/n-alac.m4a")
printf '%-6s %-28s %10s\n' ALAC "normalize -23 (measure+save)" "$k"

# Two files at once against one after the other, where the tool takes -j.
if "$kel" loudness --help 2>/dev/null | grep -q -- '-j N'; then
  cp "$dir/a.mp3" "$dir/b.mp3"
  one=$(best "$kel" loudness -j 1 "$dir/a.mp3" "$dir/b.mp3")
  two=$(best "$kel" loudness -j 2 "$dir/a.mp3" "$dir/b.mp3")
  printf '\nMP3 x2  loudness -j 1 %s s, -j 2 %s s: %.2fx the throughput\n' "$one" "$two" "$(awk -v a="$one" -v b="$two" 'BEGIN { print a / b }')"
fi
