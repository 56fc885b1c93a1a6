#!/usr/bin/env python3
"""The kel tool on MP3 files: cuts and copies keep the source's ID3v2 tag and
put padding frames (carrying the bit reservoir) in front of the first kept
frame; gains are written without re-encoding; WAVE converts to MP3 through
LAME. Outputs are read back with ffprobe and ffmpeg.

usage: test_cli_mp3.py PATH_TO_KEL
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

KEL = None
MARKER = b"KEL padding frame"


def run(*args):
    p = subprocess.run([KEL, *map(str, args)], capture_output=True, text=True, timeout=300)
    for marker in ("Sanitizer", "runtime error"):
        assert marker not in p.stderr, p.stderr
    assert p.returncode == 0, f"status {p.returncode}\n{p.stdout}\n{p.stderr}"
    return p.stdout


def probe(*args):
    return subprocess.run(["ffprobe", "-v", "error", *args], capture_output=True, text=True, check=True).stdout


def frame_positions(path):
    """(pos, size) of every audio frame as ffprobe demuxes the file."""
    out = probe("-select_streams", "a:0", "-show_entries", "packet=pos,size", "-of", "compact=p=0", path)
    frames = []
    for line in out.splitlines():
        fields = dict(f.split("=", 1) for f in line.split("|") if "=" in f)
        if "pos" in fields and "size" in fields:
            frames.append((int(fields["pos"]), int(fields["size"])))
    return frames


def decoded_frames(path):
    """Sample frames ffmpeg decodes, nothing trimmed; fails on broken frames."""
    raw = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-err_detect", "crccheck+explode", "-flags2",
                          "+skip_manual", "-i", path, "-f", "s16le", "-ac", "1", "-"],
                         capture_output=True, check=True).stdout
    return len(raw) // 2


def heard(path):
    """Mono samples as ffmpeg plays the file (delay and padding dropped)."""
    raw = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-f", "f32le", "-ac", "1", "-"],
                         capture_output=True, check=True).stdout
    return struct.unpack("<%df" % (len(raw) // 4), raw)


def id3v2_tag(data):
    assert data[:3] == b"ID3"
    size = (data[6] & 0x7F) << 21 | (data[7] & 0x7F) << 14 | (data[8] & 0x7F) << 7 | (data[9] & 0x7F)
    return data[:10 + size]


class Mp3Commands(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="kel-cli-mp3.")
        cls.wav = os.path.join(cls.dir, "noise.wav")
        subprocess.run(["sox", "-n", "-r", "44100", "-c", "2", "-b", "16", cls.wav, "synth", "3", "sine", "330",
                        "pinknoise", "gain", "-6"], check=True)
        cls.mp3 = os.path.join(cls.dir, "noise.mp3")
        subprocess.run(["lame", "--quiet", "-b", "128", "--id3v2-only", "--tt", "KEL title", cls.wav, cls.mp3],
                       check=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def path(self, name):
        return os.path.join(self.dir, name)

    def test_cut_and_copy_keep_the_tag_and_pad_the_reservoir(self):
        data = open(self.mp3, "rb").read()
        frames = frame_positions(self.mp3)
        # main_data_begin: 9 bits after the 4-byte header (no CRC here).
        begins = [data[p + 4] << 1 | data[p + 5] >> 7 for p, _ in frames]
        k = next(i for i in range(10, len(frames)) if begins[i] > 0)

        for command, first, last, first_kept in (("cut", 0, k - 1, k), ("copy", k, len(frames) - 1, k)):
            out = self.path(command + ".mp3")
            text = run(command, self.mp3, "--packets", "--start", first, "--end", last, "-o", out)
            saved = open(out, "rb").read()
            tag = id3v2_tag(saved)
            self.assertEqual(probe("-show_entries", "format_tags=title", "-of", "csv=p=0", out).strip(), "KEL title")
            self.assertEqual(saved[len(tag) + 36:len(tag) + 40], b"Info")
            kept = frame_positions(out)
            # The first real frame, unchanged, behind the padding frames;
            # the first of those starts its main data with the marker.
            p, size = frames[first_kept]
            n = next(j for j, (q, size2) in enumerate(kept) if saved[q:q + size2] == data[p:p + size])
            self.assertGreaterEqual(n, 1, text)
            self.assertIn("put %d padding frames" % n, text)
            self.assertIn(MARKER[:8], saved[kept[0][0]:kept[0][0] + kept[0][1]])
            padding = kept[:n]
            self.assertEqual(len(kept), len(padding) + len(frames) - k)
            self.assertEqual(decoded_frames(out), len(kept) * 1152)

    def test_gain_is_lossless_and_convert_writes_mp3(self):
        gained = self.path("gain.mp3")
        run("gain", self.mp3, "--db", 3, "-o", gained)
        before = frame_positions(self.mp3)
        after = frame_positions(gained)
        self.assertEqual([s for _, s in before], [s for _, s in after])
        self.assertEqual(decoded_frames(gained), len(after) * 1152)

        out = self.path("converted.mp3")
        run("convert", self.wav, "-o", out, "--bitrate", 96)
        info = probe("-show_entries", "stream=codec_name,bit_rate,sample_rate,channels", "-of", "csv=p=0", out)
        self.assertEqual(info.split(), ["mp3,44100,2,96000"])
        # The Info frame trims LAME's delay and padding: players hear the
        # source's 3 s to the sample, and so does a conversion back.
        self.assertEqual(len(heard(out)), 3 * 44100)
        back = self.path("back.wav")
        run("convert", out, "-o", back)
        self.assertEqual(len(heard(back)), 3 * 44100)

    def test_saves_keep_the_timing_players_hear(self):
        # lame's delay and padding survive a gain; a copy from A to B and a
        # cut of the start play exactly those frames, aligned with the
        # source (a lead frame and padding frames in front are trimmed by
        # the LAME extension of the saved Info frame).
        source = heard(self.mp3)
        self.assertEqual(len(source), 3 * 44100)
        gained = self.path("gain-timing.mp3")
        run("gain", self.mp3, "--db", -3, "-o", gained)
        factor = 2 ** (-2 / 4)
        self.assertEqual(len(heard(gained)), len(source))
        self.assertLess(max(abs(a * factor - b) for a, b in zip(source, heard(gained))), 1e-5)
        for command, args, start, count in (("copy", ["--start", 0.4321, "--end", 1.5], 19056, 47094),
                                            ("cut", ["--end", 1.0], 44100, 2 * 44100)):
            out = self.path(command + "-timing.mp3")
            run(command, self.mp3, *args, "-o", out)
            got = heard(out)
            self.assertEqual(len(got), count)
            self.assertLess(max(abs(a - b) for a, b in zip(source[start:start + count], got)), 1e-6, command)

    def test_split_and_join_play_the_source_sample_for_sample(self):
        source = heard(self.mp3)
        run("split", self.mp3, "--every", 0.7, "-o", self.path("piece{n}.mp3"))
        pieces = [heard(self.path(f"piece{n}.mp3")) for n in range(1, 6)]
        self.assertEqual([len(p) for p in pieces], [30870] * 4 + [3 * 44100 - 4 * 30870])
        self.assertEqual(sum(pieces, ()), source)
        for n in range(1, 6):
            tags = probe("-show_entries", "format_tags=title,track", "-of", "csv=p=0", self.path(f"piece{n}.mp3"))
            self.assertEqual(tags.strip(), f"KEL title,{n}")
        # Joined back, the seams play the source; pieces that did not touch
        # get the frames carrying the second's reservoir and decode clean.
        pieces = [self.path(f"piece{n}.mp3") for n in range(1, 6)]
        self.assertIn("4 of 4 seams sample-exact", run("join", *pieces, "-o", self.path("joined.mp3")))
        self.assertEqual(heard(self.path("joined.mp3")), source)
        text = run("join", pieces[0], pieces[2], "-o", self.path("gap.mp3"))
        self.assertIn("put 2 padding frames", text)
        self.assertEqual(decoded_frames(self.path("gap.mp3")), len(frame_positions(self.path("gap.mp3"))) * 1152)
        self.assertLessEqual(max(map(abs, heard(self.path("gap.mp3")))), 1.0)
        other = self.path("other.mp3")
        subprocess.run(["lame", "--quiet", "--resample", "48", self.wav, other], check=True)
        p = subprocess.run([KEL, "join", pieces[0], other, "-o", self.path("no.mp3")], capture_output=True, text=True)
        self.assertEqual((p.returncode, p.stderr.strip()),
                         (1, f"kel: {other} does not fit {pieces[0]}: 48000 Hz, not 44100 Hz (--convert transcodes it)"))
        run("join", pieces[0], other, "--convert", "-o", self.path("yes.mp3"))
        # Plus what plays at the seam: the first piece's end padding, the
        # 48 kHz file's own delay and padding, resampled.
        self.assertAlmostEqual(len(heard(self.path("yes.mp3"))), 30870 + 3 * 44100, delta=4 * 1152)
        p = subprocess.run([KEL, "join", pieces[0], "-o", self.path("no.mp3")], capture_output=True)
        self.assertEqual(p.returncode, 2)
        self.assertFalse(os.path.exists(self.path("no.mp3")))

    def test_impossible_lame_fields_are_ignored(self):
        # Delay and padding of 4095 each on a file of 0.1 s: more than the
        # file holds, so the clip keeps every frame and saves no extension.
        short = self.path("short.mp3")
        subprocess.run(["sox", self.wav, self.path("short.wav"), "trim", "0", "0.1"], check=True)
        subprocess.run(["lame", "--quiet", "-b", "128", self.path("short.wav"), short], check=True)
        with open(short, "rb") as f:
            data = bytearray(f.read())
        lame = data.index(b"LAME")
        data[lame + 21:lame + 24] = b"\xff\xff\xff"
        with open(short, "wb") as f:
            f.write(data)
        out = self.path("short-gain.mp3")
        run("gain", short, "--db", -3, "-o", out)
        self.assertEqual(decoded_frames(out), len(frame_positions(out)) * 1152)
        with open(out, "rb") as f:
            self.assertNotIn(b"LAME", f.read()[:frame_positions(out)[0][0]])  # the Info frame


if __name__ == "__main__":
    KEL = sys.argv.pop(1)
    unittest.main(verbosity=2)
