#!/bin/sh
# Splits an hour of MP3 at 20 times and joins the pieces back, with kel
# (split, join), mp3splt (split; its pieces joined by ffmpeg's concat
# demuxer, mp3splt having no join) and ffmpeg -c copy (segment muxer, concat
# demuxer), all on the same file in the same run. Prints the times side by
# side and whether each joined file decodes (ffmpeg) sample for sample like
# the source, or by how many samples its length differs. Then splits an hour
# of tracks and silences at the silences, as WAVE and as MP3, beside sox and
# mp3splt, with the file cold and cached.
#
# usage: bench/bench_split.sh [PATH_TO_KEL] [WORK_DIR]
#   PATH_TO_KEL  default build/tools/kel
#   WORK_DIR     where the hour of MP3 is made (kept for the next run) and
#                the pieces go; default /tmp/kel-bench-split
# Run it under nice on a shared machine: nice -n 19 bench/bench_split.sh
set -eu

KEL=$(realpath "${1:-build/tools/kel}")
WORK=${2:-/tmp/kel-bench-split}
mkdir -p "$WORK"
cd "$WORK"

SOURCE=hour.mp3
if [ ! -f "$SOURCE" ]; then
    echo "making one hour of MP3 (128 kbit/s, 44.1 kHz stereo) in $WORK ..."
    sox -n -r 44100 -c 2 -b 16 hour.wav synth 3600 pinknoise sine 220 tremolo 0.1 60 gain -8
    lame --quiet -b 128 hour.wav "$SOURCE"
    rm -f hour.wav
fi

# 20 cut times, irregular and to the hundredth (mp3splt's finest unit).
TIMES=$(awk 'BEGIN { for (i = 1; i <= 20; i++) printf "%s%.2f", (i > 1 ? "," : ""), i * 171.37 + (i % 7) * 0.131 }')

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }

# Decoded samples of a file, as a checksum and a count of bytes.
decode_sum() { ffmpeg -nostdin -v error -i "$1" -f s16le - | md5sum | cut -c1-32; }
decode_len() { ffmpeg -nostdin -v error -i "$1" -f s16le - | wc -c; }
SOURCE_SUM=$(decode_sum "$SOURCE")
SOURCE_LEN=$(decode_len "$SOURCE")

verdict() {
    if [ "$(decode_sum "$1")" = "$SOURCE_SUM" ]; then
        echo "identical"
    else
        printf "differs (%+d samples)\n" $(( ($(decode_len "$1") - SOURCE_LEN) / 4 ))
    fi
}

# The pieces decoded one by one and played back to back, against the source.
pieces_verdict() {
    sum=$(for f in "$@"; do ffmpeg -nostdin -v error -i "$f" -f s16le -; done | md5sum | cut -c1-32)
    if [ "$sum" = "$SOURCE_SUM" ]; then
        echo "identical"
    else
        len=$(for f in "$@"; do ffmpeg -nostdin -v error -i "$f" -f s16le -; done | wc -c)
        printf "differ (%+d samples)\n" $(( (len - SOURCE_LEN) / 4 ))
    fi
}

concat_list() { for f in "$@"; do echo "file '$PWD/$f'"; done; }

rm -rf kel mp3splt ffmpeg && mkdir kel mp3splt ffmpeg

# kel
t0=$(now)
"$KEL" split "$SOURCE" --at "$TIMES" -o 'kel/{n:02}.mp3' > /dev/null
t1=$(now)
"$KEL" join kel/[0-9]*.mp3 -o kel/joined.mp3 > /dev/null
t2=$(now)
KEL_SPLIT=$(elapsed "$t0" "$t1"); KEL_JOIN=$(elapsed "$t1" "$t2")
KEL_SAME=$(verdict kel/joined.mp3)
KEL_PIECES=$(pieces_verdict kel/[0-9]*.mp3)

# mp3splt: times as minutes.seconds.hundredths, the end as EOF.
SPLT_TIMES=$(echo "$TIMES" | tr ',' '\n' | awk '{ m = int($1 / 60); s = $1 - 60 * m; printf "%d.%05.2f ", m, s }')
t0=$(now)
# shellcheck disable=SC2086
mp3splt -q -f -d mp3splt -o '@n2' "$SOURCE" 0.0 $SPLT_TIMES EOF > /dev/null
t1=$(now)
concat_list mp3splt/*.mp3 > mp3splt.txt
ffmpeg -nostdin -v error -y -f concat -safe 0 -i mp3splt.txt -c copy mp3splt-joined.mp3
t2=$(now)
SPLT_SPLIT=$(elapsed "$t0" "$t1"); SPLT_JOIN=$(elapsed "$t1" "$t2")
SPLT_SAME=$(verdict mp3splt-joined.mp3)
SPLT_PIECES=$(pieces_verdict mp3splt/*.mp3)

# ffmpeg -c copy
t0=$(now)
ffmpeg -nostdin -v fatal -y -i "$SOURCE" -c copy -f segment -segment_times "$TIMES" ffmpeg/%02d.mp3
t1=$(now)
concat_list ffmpeg/*.mp3 > ffmpeg.txt
ffmpeg -nostdin -v error -y -f concat -safe 0 -i ffmpeg.txt -c copy ffmpeg-joined.mp3
t2=$(now)
FF_SPLIT=$(elapsed "$t0" "$t1"); FF_JOIN=$(elapsed "$t1" "$t2")
FF_SAME=$(verdict ffmpeg-joined.mp3)
FF_PIECES=$(pieces_verdict ffmpeg/*.mp3)

echo "one hour of MP3, 20 cuts ($(ls kel/[0-9]*.mp3 | wc -l) pieces), seconds; decodes by ffmpeg against the source's:"
printf "%-24s %7s %7s   %-28s %s\n" "tool" "split" "join" "joined file" "pieces back to back"
printf "%-24s %7s %7s   %-28s %s\n" "kel split / join" "$KEL_SPLIT" "$KEL_JOIN" "$KEL_SAME" "$KEL_PIECES"
printf "%-24s %7s %7s   %-28s %s\n" "mp3splt / ffmpeg concat" "$SPLT_SPLIT" "$SPLT_JOIN" "$SPLT_SAME" "$SPLT_PIECES"
printf "%-24s %7s %7s   %-28s %s\n" "ffmpeg segment / concat" "$FF_SPLIT" "$FF_JOIN" "$FF_SAME" "$FF_PIECES"

# Silence split: an hour of 20 tracks (pink noise, 175 s each) with 2.5 s
# of silence after each, as WAVE and as MP3; kel split --silence against
# sox's silence effect (WAVE) and mp3splt -s (MP3). Cold: the file dropped
# from the page cache and no levels kept (kel's level cache, mp3splt's
# mp3splt.log); cached: the same again, with what the first run kept.
if [ ! -f silences.mp3 ]; then
    echo "making one hour of tracks and silences in $WORK ..."
    sox -n -r 44100 -c 2 -b 16 track.wav synth 175 pinknoise gain -8 pad 0 2.5
    sox track.wav silences.wav repeat 19
    lame --quiet -b 128 silences.wav silences.mp3
    rm -f track.wav
fi
# GNU dd with nocache and no count drops a file's pages from the cache.
uncache() { dd if="$1" iflag=nocache count=0 status=none; }
timed() {
    t0=$(now)
    "$@" > /dev/null 2>&1
    elapsed "$t0" "$(now)"
}
count() { find "$1" -type f | wc -l; }

rm -rf sil cache mp3splt.log && mkdir -p sil/kel-wav sil/kel-mp3 sil/sox sil/splt
export KEL_CACHE_DIR="$PWD/cache"
uncache silences.wav
KEL_WAV_COLD=$(timed "$KEL" split silences.wav --silence --min-silence 2 -o 'sil/kel-wav/{n:02}.wav')
KEL_WAV_WARM=$(timed "$KEL" split silences.wav --silence --min-silence 2 -o 'sil/kel-wav/{n:02}.wav')
uncache silences.wav
SOX_COLD=$(timed sox silences.wav sil/sox/t.wav silence 1 0.01 -50d 1 2.0 -50d : newfile : restart)
rm -f sil/sox/*
SOX_WARM=$(timed sox silences.wav sil/sox/t.wav silence 1 0.01 -50d 1 2.0 -50d : newfile : restart)
uncache silences.mp3
KEL_MP3_COLD=$(timed "$KEL" split silences.mp3 --silence --min-silence 2 -o 'sil/kel-mp3/{n:02}.mp3')
KEL_MP3_WARM=$(timed "$KEL" split silences.mp3 --silence --min-silence 2 -o 'sil/kel-mp3/{n:02}.mp3')
uncache silences.mp3
SPLT_COLD=$(timed mp3splt -q -f -s -p th=-50,min=2 -d sil/splt silences.mp3)
rm -f sil/splt/*
SPLT_WARM=$(timed mp3splt -q -f -s -p th=-50,min=2 -d sil/splt silences.mp3)

echo
echo "silence split of one hour (20 tracks, 2.5 s gaps), seconds cold / cached, pieces:"
printf "%-24s %7s %7s   %s\n" "tool" "cold" "cached" "pieces"
printf "%-24s %7s %7s   %s\n" "kel split WAVE" "$KEL_WAV_COLD" "$KEL_WAV_WARM" "$(count sil/kel-wav)"
printf "%-24s %7s %7s   %s\n" "sox silence WAVE" "$SOX_COLD" "$SOX_WARM" "$(count sil/sox)"
printf "%-24s %7s %7s   %s\n" "kel split MP3" "$KEL_MP3_COLD" "$KEL_MP3_WARM" "$(count sil/kel-mp3)"
printf "%-24s %7s %7s   %s\n" "mp3splt -s MP3" "$SPLT_COLD" "$SPLT_WARM" "$(count sil/splt)"
