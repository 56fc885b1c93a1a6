#!/usr/bin/env python3
"""The kel tool on coded files as users bring them: gains measured on
ffmpeg's decode of the output, lossless sources kept lossless, decoder
configurations that are not plain AAC refused, outputs that would not play
never reported as success, overviews of clips whose last packet is short.

usage: test_cli_coded.py PATH_TO_KEL
"""
import math
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

KEL = None
STEP_DB = 20 * math.log10(2) / 4


def run(*args, status=0):
    p = subprocess.run([KEL, *map(str, args)], capture_output=True, text=True, timeout=300)
    for marker in ("Sanitizer", "runtime error"):
        assert marker not in p.stderr, p.stderr
    assert p.returncode == status, f"status {p.returncode}, wanted {status}\n{p.stdout}\n{p.stderr}"
    return p


def decode(path, *options):
    """ffmpeg's decode as 32-bit floats, interleaved."""
    raw = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", *options, "-i", path, "-f", "f32le", "-"],
                         capture_output=True, check=True).stdout
    return struct.unpack("<%df" % (len(raw) // 4), raw)


def energy(samples):
    # Not a mean: an AAC output plays its priming packet, which the source's
    # edit list hides, and those near-silent samples must not count.
    return sum(v * v for v in samples)


def codec_of(path):
    return subprocess.run(["ffprobe", "-v", "error", "-show_entries", "stream=codec_name", "-of", "csv=p=0", path],
                          capture_output=True, text=True, check=True).stdout.strip()


class CodedFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="kel-cli-coded.")
        cls.wav = cls.path("tone.wav")
        subprocess.run(["sox", "-R", "-n", "-r", "44100", "-c", "2", "-b", "16", cls.wav, "synth", "2", "sine", "440",
                        "sine", "660", "gain", "-12"], check=True)
        cls.mp3 = cls.path("tone.mp3")
        subprocess.run(["lame", "--quiet", "-b", "128", cls.wav, cls.mp3], check=True)
        cls.aac = cls.path("tone.m4a")
        cls.alac = cls.path("tone-alac.m4a")
        for out, codec in ((cls.aac, ["aac", "-b:a", "128k"]), (cls.alac, ["alac"])):
            subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-i", cls.wav, "-c:a", *codec, out], check=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    @classmethod
    def path(cls, name):
        return os.path.join(cls.dir, name)

    def test_gains_land_on_the_nearest_step_and_report_it(self):
        # Attenuations on a whole step used to come out one step short
        # (-6 dB reported as -4.52 and heard as -3.01).
        for source, options in ((self.mp3, ["-flags2", "+skip_manual"]), (self.aac, [])):
            before = energy(decode(source, *options))
            for asked in (-3, -6, -9, 6):
                with self.subTest(source=os.path.basename(source), db=asked):
                    out = self.path("gain" + os.path.splitext(source)[1])
                    text = run("gain", source, "--db", asked, "-o", out).stdout
                    reported = float(re.search(r"([-+]\d+\.\d+) dB applied", text).group(1))
                    self.assertAlmostEqual(reported, round(asked / STEP_DB) * STEP_DB, delta=0.006)
                    measured = 10 * math.log10(energy(decode(out, *options)) / before)
                    self.assertAlmostEqual(measured, reported, delta=0.05)

    def test_mpeg4_saves_keep_the_priming_out_of_hearing(self):
        # The source's edit list (ffmpeg: 1024 frames of AAC priming) is kept
        # by a gain-only save, and a copy starts exactly at its frame: a lead
        # packet in front and an edit list of its own. ffmpeg ends an MPEG-4
        # track only at whole packets, so the end may run on for less than
        # one packet (the gained Apple Lossless file too: its short last
        # packet is encoded again as a whole one).
        for source, packet, tolerance in ((self.aac, 1024, 1e-4), (self.alac, 4096, 0.0)):
            with self.subTest(source=os.path.basename(source)):
                heard = decode(source)  # stereo, interleaved
                gained = self.path("timing-gain.m4a")
                run("gain", source, "--db", -3, "-o", gained)
                self.assertGreaterEqual(len(decode(gained)), len(heard))
                self.assertLess(len(decode(gained)), len(heard) + 2 * packet)
                if source == self.aac:
                    self.assertEqual(len(decode(gained)), len(heard))
                copied = self.path("timing-copy.m4a")
                run("copy", source, "--start", 0.5, "--end", 1.5, "-o", copied)
                got = decode(copied)
                self.assertGreaterEqual(len(got), 2 * 44100)
                self.assertLess(len(got), 2 * (44100 + packet))
                self.assertLessEqual(max(abs(a - b) for a, b in zip(heard[2 * 22050:2 * 66150], got)), tolerance)

    def test_split_pieces_join_back_to_the_source(self):
        # The packet each cut went through is found again in the next piece
        # (AAC's by a decode equal to within 1e-3) and kept once.
        for source in (self.aac, self.alac):
            with self.subTest(source=os.path.basename(source)):
                pattern = self.path("piece{n}.m4a")
                run("split", source, "--at", "0.5,1.234", "-o", pattern)
                out = self.path("joined.m4a")
                pieces = [pattern.replace("{n}", str(n)) for n in (1, 2, 3)]
                self.assertIn("2 of 2 seams sample-exact", run("join", *pieces, "-o", out).stdout)
                self.assertEqual(decode(out), decode(source))

    def test_lossless_sources_stay_lossless_unless_asked(self):
        out = self.path("alac-gain.m4a")
        text = run("gain", self.alac, "--db", -6, "-o", out).stdout
        self.assertNotIn("lossy", text)
        self.assertEqual(codec_of(out), "alac")
        # The short last packet is encoded again as a whole one (a frame
        # ffmpeg can read): silence completes it.
        self.assertIn("frames of silence", text)
        source, gained = decode(self.alac), decode(out)
        self.assertEqual(len(gained), 22 * 4096 * 2)
        factor = 10 ** (-6 / 20)
        self.assertLessEqual(max(abs(g - s * factor) for s, g in zip(source, gained)), 1.5 / 32768)
        self.assertEqual(max(abs(v) for v in gained[len(source):]), 0.0)

        text = run("gain", self.alac, "--db", -6, "--codec", "aac", "-o", out).stdout
        self.assertIn("lossy", text)
        self.assertEqual(codec_of(out), "aac")

    def test_decoder_configurations_other_than_plain_aac_are_refused(self):
        data = open(self.aac, "rb").read()
        # ffmpeg's AudioSpecificConfig: AAC LC, 44.1 kHz, stereo, then the
        # 0x2B7 extension naming SBR with its presence flag off.
        asc = bytes.fromhex("121056e500")
        at = data.index(asc)
        faults = {
            "mp4a-object-type-als.m4a": bytes.fromhex("f880") + asc[2:],  # type 31 + 4: ALS
            "mp4a-explicit-sbr.m4a": asc[:4] + b"\x80",  # presence flag on
        }
        for name, config in faults.items():
            with self.subTest(name):
                path = self.path(name)
                with open(path, "wb") as f:
                    f.write(data[:at] + config + data[at + len(asc):])
                self.assertIn("(Efms)", run("info", path, status=1).stderr)
                out = self.path("refused.m4a")
                run("gain", path, "--db", -3, "-o", out, status=1)
                self.assertFalse(os.path.exists(out))

    def test_single_mp3_frame_is_kept_but_fails(self):
        out = self.path("one-frame.mp3")
        p = run("copy", self.mp3, "--packets", "--start", 0, "--end", 0, "-o", out, status=1)
        self.assertIn("single MP3 frame", p.stderr)
        self.assertTrue(os.path.exists(out))

    def test_overview_draws_clips_whose_last_packet_is_short(self):
        # 2 s of Apple Lossless: 21 packets of 4096 frames and a short last
        # one; at fine zooms the library runs out of samples a few points
        # early, and the tool draws what it delivers.
        png = self.path("alac.png")
        run("overview", self.alac, "-o", png, "--width", 1200)
        self.assertTrue(os.path.getsize(png) > 0)
        lines = run("overview", self.alac, "--text", "--width", 1000).stdout.splitlines()[1:]
        self.assertGreater(len(lines), 950)
        self.assertGreater(max(float(line.split()[2]) for line in lines), 0.2)  # two sines at 0.25
        self.assertGreater(float(lines[-1].split()[1]), 1.99)

    def test_messages_say_what_the_user_needs(self):
        p = run("cut", self.mp3, "--start", 50, "--end", 60, "-o", self.path("never.mp3"), status=1)
        self.assertRegex(p.stderr, r"starts at 50\.000 s, but the file is 2\.\d+ s long")
        text = run("explain", "Ersz").stdout
        self.assertIn("could not be read whole", text)
        self.assertTrue(text.endswith(")\n"))


if __name__ == "__main__":
    KEL = sys.argv.pop(1)
    unittest.main(verbosity=2)
