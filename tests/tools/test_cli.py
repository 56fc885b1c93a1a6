#!/usr/bin/env python3
"""The kel tool driven as a user drives it: input files made here with known
content, outputs checked by reading them back (the wave module, ffprobe, a
small PNG reader) against expectations worked out from the packet rules:
PCM packets of 1024 frames, times rounded to the nearest packet boundary.

usage: test_cli.py PATH_TO_KEL
"""
import json
import math
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import wave
import zlib
from pathlib import Path

KEL = None
RATE = 44100
PACKET = 1024


def run(*args, status=0, env=None):
    full_env = dict(os.environ, **(env or {}))
    p = subprocess.run([KEL, *map(str, args)], capture_output=True, text=True, env=full_env, timeout=300)
    for marker in ("Sanitizer", "runtime error"):
        assert marker not in p.stderr, p.stderr
    assert status is None or p.returncode == status, f"status {p.returncode}, wanted {status}\n{p.stdout}\n{p.stderr}"
    return p


def write_wave(path, frames, value, channels=2, bits=16):
    """value(i) gives frame i's sample in -1..1, the same on every channel."""
    scale = 32767 if bits == 16 else 8388607
    out = bytearray()
    for i in range(frames):
        v = int(round(value(i) * scale)).to_bytes(bits // 8, "little", signed=True)
        out += v * channels
    with wave.open(str(path), "wb") as w:
        w.setnchannels(channels)
        w.setsampwidth(bits // 8)
        w.setframerate(RATE)
        w.writeframes(bytes(out))


def read_wave(path):
    """The first channel's samples as floats."""
    with wave.open(str(path), "rb") as w:
        n, width, ch = w.getnframes(), w.getsampwidth(), w.getnchannels()
        data = w.readframes(n)
    assert width == 2
    values = struct.unpack("<%dh" % (n * ch), data)
    return [v / 32768.0 for v in values[::ch]]


def marker_packets(path):
    """Packets of a file whose packet p holds the constant (p + 1) / 256."""
    samples = read_wave(path)
    return [round(samples[i] * 256) - 1 for i in range(0, len(samples), PACKET)]


def ffprobe(path):
    p = subprocess.run(["ffprobe", "-v", "error", "-show_streams", "-of", "json", str(path)],
                       capture_output=True, text=True, check=True)
    return json.loads(p.stdout)["streams"][0]


def read_png(path):
    """(width, height, rows of (r, g, b)) for 8-bit RGB PNG files."""
    data = Path(path).read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    pos, idat, header = 8, b"", None
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    width, height, depth, color = header[:4]
    assert (depth, color) == (8, 2), "8-bit RGB expected"
    raw, stride, rows, prev = zlib.decompress(idat), width * 3, [], bytearray(width * 3)
    for y in range(height):
        kind, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride):
            a = line[i - 3] if i >= 3 else 0
            b = prev[i]
            c = prev[i - 3] if i >= 3 else 0
            if kind == 1:
                line[i] = (line[i] + a) & 255
            elif kind == 2:
                line[i] = (line[i] + b) & 255
            elif kind == 3:
                line[i] = (line[i] + (a + b) // 2) & 255
            elif kind == 4:
                pa, pb, pc = abs(b - c), abs(a - c), abs(a + b - 2 * c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append([tuple(line[x * 3:x * 3 + 3]) for x in range(width)])
        prev = line
    return width, height, rows


def boundary(seconds):
    """The packet boundary nearest to a time, for 1024-frame packets."""
    return round(seconds * RATE / PACKET)


class CliTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="kel-cli-")
        # 100 packets; packet p holds the constant (p + 1) / 256.
        self.markers = self.path("markers.wav")
        write_wave(self.markers, 100 * PACKET, lambda i: (i // PACKET + 1) / 256)

    def tearDown(self):
        shutil.rmtree(self.dir)

    def path(self, name):
        return os.path.join(self.dir, name)

    def test_info_text_and_json(self):
        mono24 = self.path("mono24.wav")
        write_wave(mono24, 5000, lambda i: 0.0, channels=1, bits=24)
        mp3 = self.path("tone.mp3")
        subprocess.run(["lame", "--quiet", "-m", "j", "-b", "128", self.markers, mp3], check=True)
        garbage = self.path("garbage.wav")
        Path(garbage).write_bytes(b"this is not audio at all" * 10)

        out = json.loads(run("info", "--json", mono24, mp3, garbage, status=1).stdout)
        self.assertEqual(len(out), 3)
        w, m, bad = out
        # 5000 frames make five packets, the last reporting a whole packet;
        # the duration is the file's own.
        self.assertEqual((w["format"], w["channels"], w["bits_per_sample"], w["packets"], w["packet_frames"]),
                         ("WAVE", 1, 24, 5, 1024))
        self.assertAlmostEqual(w["duration"], 5000 / RATE, places=4)
        self.assertEqual(w["bit_rate"], RATE * 24)
        self.assertIsNone(w["mpeg_version"])
        self.assertEqual((m["format"], m["rate_mode"], m["mpeg_version"], m["stereo_mode"]),
                         ("MP3", "constant", 1, "joint stereo"))
        self.assertEqual(m["packet_frames"], 1152)
        self.assertEqual(m["bit_rate"], 128000)
        self.assertEqual(bad["error"]["code"], "Efmu")

        text = run("info", self.markers).stdout
        self.assertIn("packets       100 of 1024 frames", text)
        self.assertIn("sample rate   44100 Hz", text)

    def test_cut_copy_splice_take_frames_or_packets(self):
        # A cut inside the file removes whole packets (the nearest ones);
        # copies and cuts at the file's ends are frame-exact.
        first, stop = boundary(1.0), boundary(2.0)  # packets 43..85
        cut, kept = self.path("cut.wav"), self.path("kept.wav")
        p = run("cut", self.markers, "--start", 1, "--end", 2, "-o", cut)
        self.assertIn(f"packets {first}..{stop - 1}", p.stdout)
        self.assertEqual(marker_packets(cut), list(range(first)) + list(range(stop, 100)))
        run("copy", self.markers, "--start", 1, "--end", 2, "-o", kept)
        source = read_wave(self.markers)
        self.assertEqual(read_wave(kept), source[RATE:2 * RATE])
        run("cut", self.markers, "--end", 0.5, "-o", cut)
        self.assertEqual(read_wave(cut), source[RATE // 2:])

        kept = self.path("kept-packets.wav")
        run("copy", self.markers, "--packets", "--start", first, "--end", stop - 1, "-o", kept)
        stream = ffprobe(kept)
        self.assertEqual((stream["codec_name"], int(stream["duration_ts"])), ("pcm_s16le", (stop - first) * PACKET))

        by_index = self.path("by_index.aif")  # another format on the way
        run("copy", self.markers, "--packets", "--start", 5, "--end", 9, "-o", by_index)
        stream = ffprobe(by_index)
        self.assertEqual((stream["codec_name"], int(stream["duration_ts"])), ("pcm_s16be", 5 * PACKET))

        spliced = self.path("spliced.wav")
        at = boundary(0.5)
        p = run("splice", self.markers, "--at", 0.5, "--insert", kept, "-o", spliced)
        self.assertIn(f"before packet {at}", p.stdout)
        self.assertEqual(marker_packets(spliced), list(range(at)) + list(range(first, stop)) + list(range(at, 100)))

        mono = self.path("mono.wav")
        write_wave(mono, 4 * PACKET, lambda i: 0.0, channels=1)
        p = run("splice", self.markers, "--insert", mono, "-o", spliced, status=1)
        self.assertIn("Ecld", p.stderr)

    def test_gain_and_fade_follow_their_rules(self):
        sine = self.path("sine.wav")
        write_wave(sine, 100 * PACKET, lambda i: 0.5 * math.sin(2 * math.pi * i / 64))
        gained = self.path("gained.wav")
        p = run("gain", sine, "--db", -6, "--start", 1, "--end", 2, "-o", gained)
        self.assertIn("-6.00 dB applied", p.stdout)
        s = read_wave(gained)
        peak = [max(abs(v) for v in s[k * PACKET:(k + 1) * PACKET]) for k in range(100)]
        for k in range(100):
            expected = 0.5 * (10 ** (-6 / 20) if boundary(1) <= k < boundary(2) else 1.0)
            self.assertAlmostEqual(peak[k], expected, delta=2e-4, msg=f"packet {k}")

        # Fades are the square of a straight ramp over whole packets.
        flat = self.path("flat.wav")
        write_wave(flat, 100 * PACKET, lambda i: 0.5)
        faded = self.path("faded.wav")
        run("fade", flat, "--in", 1, "--out", 1, "-o", faded)
        s = read_wave(faded)
        n_in = boundary(1.0) * PACKET
        out_start = boundary(100 * PACKET / RATE - 1.0) * PACKET
        n_out = 100 * PACKET - out_start
        for k in (0, 1000, n_in // 2, n_in - 1):
            self.assertAlmostEqual(s[k], 0.5 * (k / (n_in - 1)) ** 2, delta=1e-4, msg=f"fade-in frame {k}")
        self.assertAlmostEqual(s[n_in], 0.5, delta=1e-4)
        for k in (0, n_out // 3, n_out - 1):
            self.assertAlmostEqual(s[out_start + k], 0.5 * (1 - k / (n_out - 1)) ** 2, delta=1e-4)

    def test_peak_and_overview(self):
        sine = self.path("sine.wav")
        write_wave(sine, 50 * PACKET, lambda i: 0.5 * math.sin(2 * math.pi * i / 64))
        p = run("peak", sine).stdout
        self.assertIn("peak  %.2f dBFS" % (20 * math.log10(round(0.5 * 32767) / 32768)), p)
        self.assertIn("RMS   %.2f dBFS" % (20 * math.log10(0.5 / math.sqrt(2))), p)

        # A sine of 8-frame period whose amplitude grows linearly to 0.9:
        # each column's extent is the amplitude at the column's right edge.
        frames = 200 * PACKET
        ramp = self.path("ramp.wav")
        write_wave(ramp, frames, lambda i: 0.9 * i / frames * math.sin(2 * math.pi * (i + 2) / 8))
        width, height = 200, 120
        text = run("overview", ramp, "--text", "--width", width).stdout.splitlines()
        pairs = [tuple(map(float, line.split()[2:])) for line in text if not line.startswith("#")]
        self.assertEqual(len(pairs), width)
        for x, (hi, lo) in enumerate(pairs):
            self.assertAlmostEqual(hi, 0.9 * (x + 1) / width, delta=0.01, msg=f"column {x}")
            self.assertAlmostEqual(lo, -0.9 * (x + 1) / width, delta=0.01, msg=f"column {x}")

        png = self.path("ramp.png")
        run("overview", ramp, "-o", png, "--width", width, "--height", height)
        w, h, rows = read_png(png)
        self.assertEqual((w, h), (width, height))
        background = rows[0][0]
        # The time axis is the lowest row drawn all the way across.
        axis = max(y for y in range(h) if all(px != background for px in rows[y]))
        self.assertGreater(axis, h // 2)
        half = (axis - 1) / 2
        for x in range(0, width, 7):
            column = [rows[y][x] for y in range(axis)]
            drawn = [y for y, px in enumerate(column) if px != background]
            amp = 0.9 * (x + 1) / width
            self.assertAlmostEqual(drawn[0], half - amp * half, delta=1.5, msg=f"column {x} top")
            self.assertAlmostEqual(drawn[-1], half + amp * half, delta=1.5, msg=f"column {x} bottom")
            if amp > 0.5:  # the RMS band shows inside the extent in its own colour
                self.assertNotEqual(column[round(half)], column[drawn[0]], msg=f"column {x}")

    def test_split_by_cue_and_silence_refusing_bad_input(self):
        # Tone, 60000 frames of silence, tone: 130000 frames.
        source = self.path("two.wav")
        write_wave(source, 130000, lambda i: 0.0 if 30000 <= i < 90000 else 0.5 * math.sin(i / 5))
        samples = read_wave(source)
        cue = self.path("two.cue")
        Path(cue).write_text('PERFORMER "Band"\nFILE "two.wav" WAVE\n  TRACK 01 AUDIO\n    TITLE "A/B"\n'
                             '    INDEX 01 00:00:00\n  TRACK 02 AUDIO\n    TITLE "C"\n    PERFORMER "Guest"\n'
                             '    INDEX 01 00:01:00\n  TRACK 03 AUDIO\n    TITLE "D"\n    INDEX 01 00:02:30\n')
        pattern = self.path("{n:02} {title} {performer}.wav")
        run("split", source, "--cue", cue, "-o", pattern)
        names = ["01 A_B Band.wav", "02 C Guest.wav", "03 D Band.wav"]
        pieces = [read_wave(self.path(n)) for n in names]
        self.assertEqual([len(p) for p in pieces], [44100, 105840 - 44100, 130000 - 105840])
        self.assertEqual(sum(pieces, []), samples)
        tags = [json.loads(subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format_tags", "-of", "json",
                                           self.path(n)], capture_output=True, text=True).stdout)["format"]["tags"]
                for n in names]
        self.assertEqual([(t["title"], t["artist"], t["track"]) for t in tags],
                         [("A/B", "Band", "1"), ("C", "Guest", "2"), ("D", "Band", "3")])

        # Split in the gap's middle, or leave it out: the tone is whole
        # either way, the silence kept to within a packet.
        text = run("split", source, "--silence", "--min-silence", 1, "-o", self.path("s{n}.wav")).stdout
        halves = [read_wave(self.path("s1.wav")), read_wave(self.path("s2.wav"))]
        self.assertEqual(halves[0] + halves[1], samples)
        run("join", self.path("s1.wav"), self.path("s2.wav"), "-o", self.path("s.wav"))
        self.assertEqual(read_wave(self.path("s.wav")), samples)
        self.assertAlmostEqual(len(halves[0]), 60000, delta=PACKET)
        # The levels come from the cache the first split left (the pieces
        # the same), until the file changes.
        cache = {"KEL_CACHE_DIR": self.path("cache")}
        for n in range(3):
            if n == 2:
                os.utime(source, ns=(0, 0))
            text = run("split", source, "--silence", "--min-silence", 1, "--trim", "-o", self.path("t{n}.wav"),
                       env=cache).stdout
            self.assertEqual("from the cache" in text, n == 1, text)
        spans = [tuple(map(int, line.split("frames ")[1].rstrip(")").split(" to ")))
                 for line in text.splitlines() if line.startswith("wrote")]
        self.assertEqual(len(spans), 2, text)
        self.assertTrue(spans[0][0] == 0 and 30000 <= spans[0][1] < 30000 + PACKET, spans)
        self.assertTrue(90000 - PACKET < spans[1][0] <= 90000 and spans[1][1] == 130000, spans)
        for n, (a, b) in enumerate(spans, 1):
            self.assertEqual(read_wave(self.path(f"t{n}.wav")), samples[a:b])

        # Bad sheets and names: one line, nothing written.
        before = sorted(os.listdir(self.dir))
        for args, message in ((["--cue", self.path("late.cue")], "past the end"),
                              (["--cue", self.path("order.cue")], "not after track 2"),
                              (["--cue", self.path("missing.cue")], "cannot be read"),
                              (["--at", "1,2", "-o", self.path("same.wav")], "two pieces would be written"),
                              (["--at", "1", "-o", source], "over the input")):
            Path(self.path("late.cue")).write_text(Path(cue).read_text().replace("00:02:30", "00:09:00"))
            Path(self.path("order.cue")).write_text(Path(cue).read_text().replace("00:02:30", "00:00:30"))
            p = run("split", source, *args, status=1)
            self.assertIn(message, p.stderr)
            self.assertEqual(len(p.stderr.splitlines()), 1, p.stderr)
            self.assertEqual(sorted(os.listdir(self.dir)), sorted(before + ["late.cue", "order.cue"]))
        # Ctrl-C while the second piece is saved: the first stays whole.
        p = run("split", source, "--at", "1,2", "-o", self.path("c{n}.wav"), status=130,
                env={"KEL_CLI_INTERRUPT": "save:2"})
        self.assertEqual(read_wave(self.path("c1.wav")), samples[:44100])
        self.assertEqual(sorted(os.listdir(self.dir)), sorted(before + ["late.cue", "order.cue", "c1.wav"]))

    def test_convert_changes_format_rate_and_width(self):
        out = self.path("out.aif")
        p = run("convert", self.markers, "-o", out, "--rate", 22050, "--bits", 24)
        self.assertIn("AIFF", p.stdout)
        stream = ffprobe(out)
        self.assertEqual((stream["codec_name"], stream["sample_rate"], stream["channels"]), ("pcm_s24be", "22050", 2))
        self.assertAlmostEqual(float(stream["duration"]), 100 * PACKET / RATE, delta=2 * PACKET / 22050)
        caf = self.path("out.caf")
        run("convert", out, "-o", caf)
        stream = ffprobe(caf)
        self.assertEqual((stream["codec_name"], stream["sample_rate"]), ("pcm_s16be", "22050"))
        p = run("convert", self.markers, "-o", self.path("out.xyz"), status=1)
        self.assertIn("cannot tell the format", p.stderr)

    def test_cancel_leaves_no_output(self):
        out = self.path("out.wav")
        # Ctrl-C during each long step; an existing output survives untouched.
        Path(out).write_bytes(b"precious")
        for step, args in (("save", ["cut", self.markers, "--start", 1, "--end", 2, "-o", out]),
                           ("convert", ["convert", self.markers, "-o", out, "--rate", 22050]),
                           ("open", ["info", self.markers]),
                           ("overview", ["overview", self.markers, "-o", self.path("o.png"), "--width", 50])):
            p = run(*args, status=130, env={"KEL_CLI_INTERRUPT": step})
            self.assertIn("cancelled", p.stderr, step)
            self.assertEqual(Path(out).read_bytes(), b"precious", step)
            self.assertEqual(sorted(os.listdir(self.dir)), ["markers.wav", "out.wav"], step)

    def test_batch_goes_on_past_failures_and_keeps_finished_files_on_cancel(self):
        names = [f"f{i}.wav" for i in range(5)]
        for i, name in enumerate(names):
            write_wave(self.path(name), 20 * PACKET, lambda k, i=i: (i + 1) / 16)
        Path(self.path("f2.wav")).write_bytes(b"not audio" * 40)
        inputs = [self.path(n) for n in names]
        out_dir = self.path("out")
        # Text reports come as whole blocks in input order, the failure on
        # stderr with its file's name, then the count.
        p = run("gain", *inputs, "--db", -6, "--out-dir", out_dir, "-j", 3, status=1)
        wrote = [line.split("/")[-1] for line in p.stdout.splitlines() if line.startswith("wrote")]
        self.assertEqual(wrote, ["f0.wav", "f1.wav", "f3.wav", "f4.wav"])
        self.assertEqual([line for line in p.stdout.splitlines() if line.startswith("gain")][0],
                         "gain -6.00 dB asked, -6.00 dB applied on packets 0..19 (0.000 s to 0.464 s)")
        self.assertIn("f2.wav", p.stderr)
        self.assertIn("kel: 1 of 5 files failed", p.stderr)
        for i in (0, 1, 3, 4):
            self.assertAlmostEqual(read_wave(os.path.join(out_dir, names[i]))[7], (i + 1) / 16 / 2, delta=1e-3)

        summaries = json.loads(run("convert", *inputs, "--out-dir", out_dir, "--format", "aif", "--json",
                                   status=1).stdout)
        self.assertEqual([s["file"] for s in summaries], inputs)
        self.assertEqual((summaries[0]["output"], summaries[0]["format"]), (os.path.join(out_dir, "f0.aif"), "AIFF"))
        self.assertEqual(summaries[2]["error"]["code"], "Efmu")
        self.assertNotIn("output", summaries[2])

        # Ctrl-C once the first file is done: it stays, whole; no other
        # output and no partial file.
        shutil.rmtree(out_dir)
        del inputs[2]
        p = run("cut", *inputs, "--end", 0.1, "--out-dir", out_dir, "-j", 1, status=130,
                env={"KEL_CLI_INTERRUPT": "files"})
        self.assertIn("cancelled", p.stderr)
        self.assertEqual(os.listdir(out_dir), ["f0.wav"])
        self.assertEqual(read_wave(os.path.join(out_dir, "f0.wav")), read_wave(inputs[0])[round(0.1 * RATE):])

        run("cut", inputs[0], inputs[0], "--out-dir", out_dir, status=2)  # both named f0.wav
        run("cut", *inputs, "-o", self.path("x.wav"), status=2)

    def test_bad_input_and_usage(self):
        garbage = self.path("garbage.wav")
        Path(garbage).write_bytes(b"\x00" * 300)
        p = run("peak", garbage, status=1)
        self.assertIn("Unrecognized format.", p.stderr)
        self.assertIn("(Efmu)", p.stderr)
        truncated = self.path("truncated.wav")
        Path(truncated).write_bytes(Path(self.markers).read_bytes()[:44])
        p = run("cut", truncated, "--end", 1, "-o", self.path("x.wav"), status=1)
        self.assertIn("This WAVE file is corrupt and can not be read.", p.stderr)
        p = run("peak", self.path("missing.wav"), status=1)
        self.assertIn("(Efor)", p.stderr)
        self.assertIn("--insert", run("splice", "--help").stdout)
        run("cut", self.markers, "--bogus", status=2)
        run("gain", self.markers, "-o", self.path("x.wav"), status=2)  # no --db
        p = run("copy", self.markers, "--start", 50, "--end", 60, "-o", self.path("x.wav"), status=1)
        self.assertIn("but the file is 2.322 s long", p.stderr)
        self.assertFalse(os.path.exists(self.path("x.wav")))

    def test_demo(self):
        out = os.path.join(self.dir, "demo")
        p = run("demo", out)
        self.assertEqual(sum(1 for line in p.stdout.splitlines() if line[:2] in {f"{n}." for n in range(1, 9)}), 8)
        expected_seconds = (boundary(10.0) - (boundary(5.0) - boundary(4.0))) * PACKET / RATE
        for name, codec in (("demo.wav", "pcm_s16le"), ("demo.aif", "pcm_s16be"), ("demo.caf", "pcm_s16be")):
            stream = ffprobe(os.path.join(out, name))
            self.assertEqual((stream["codec_name"], stream["channels"], stream["sample_rate"]), (codec, 2, "44100"))
            self.assertAlmostEqual(float(stream["duration"]), expected_seconds, delta=PACKET / RATE, msg=name)
        self.assertEqual(read_png(os.path.join(out, "overview.png"))[:2], (1200, 300))


if __name__ == "__main__":
    KEL = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
