#!/usr/bin/env python3
"""kel loudness against the EBU test signals that can be synthesised (Tech
3341's level and gating cases, Tech 3342's loudness range cases) and against
ffmpeg's ebur128 filter on a coded file.

usage: test_cli_loudness.py PATH_TO_KEL
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

KEL = None


def loudness(*args, status=0):
    p = subprocess.run([KEL, "loudness", "--json", *map(str, args)], capture_output=True, text=True, timeout=600)
    for marker in ("Sanitizer", "runtime error"):
        assert marker not in p.stderr, p.stderr
    assert p.returncode == status, f"status {p.returncode}\n{p.stdout}\n{p.stderr}"
    return json.loads(p.stdout)


class Loudness(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="kel-loudness.")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def tones(self, name, parts, frequency=1000):
        """A 48 kHz stereo file of sine sections (seconds, peak dBFS)."""
        pieces = []
        for i, (seconds, level) in enumerate(parts):
            piece = os.path.join(self.dir, f"{name}-{i}.wav")
            subprocess.run(["sox", "-R", "-D", "-n", "-r", "48000", "-c", "2", "-b", "16", piece, "synth", str(seconds),
                            "sine", str(frequency), "gain", str(level)], check=True)
            pieces.append(piece)
        out = os.path.join(self.dir, name + ".wav")
        subprocess.run(["sox", "-D", *pieces, out], check=True)
        return out

    def test_tech_3341_levels_and_gates(self):
        cases = {
            "case1": [(20, -23)],
            "case2": [(20, -33)],
            "case3": [(10, -36), (60, -23), (10, -36)],
            "case4": [(10, -72), (10, -36), (60, -23), (10, -36), (10, -72)],
            "case5": [(20, -26), (20.1, -20), (20, -26)],
        }
        expected = {"case1": -23.0, "case2": -33.0, "case3": -23.0, "case4": -23.0, "case5": -23.0}
        files = {name: self.tones(name, parts) for name, parts in cases.items()}
        results = loudness(*files.values())
        for name, r in zip(files, results):
            with self.subTest(name):
                self.assertAlmostEqual(r["integrated_lufs"], expected[name], delta=0.1)
                self.assertAlmostEqual(r["track_gain_db"], -18.0 - r["integrated_lufs"], places=6)

    def test_tech_3342_loudness_range(self):
        for parts, expected in (([(20, -20), (20, -30)], 10.0), ([(20, -20), (20, -15)], 5.0),
                                ([(20, -40), (20, -20)], 20.0)):
            with self.subTest(parts=parts):
                r = loudness(self.tones("lra", parts))[0]
                self.assertAlmostEqual(r["range_lu"], expected, delta=1.0)

    def test_album_is_the_files_as_one_programme_and_silence_has_no_loudness(self):
        a = self.tones("album-a", [(10, -20)], 440)
        b = self.tones("album-b", [(10, -30)], 2000)
        both = os.path.join(self.dir, "album-both.wav")
        subprocess.run(["sox", a, b, both], check=True)
        silent = os.path.join(self.dir, "silent.wav")
        subprocess.run(["sox", "-n", "-r", "48000", "-c", "2", "-b", "16", silent, "trim", "0", "3"], check=True)
        results = loudness("--album", "-j", 3, a, b, silent, os.path.join(self.dir, "missing.wav"), status=1)
        whole = loudness(both)[0]
        self.assertAlmostEqual(results[0]["album_integrated_lufs"], whole["integrated_lufs"], delta=0.05)
        self.assertAlmostEqual(results[0]["album_gain_db"], -18.0 - whole["integrated_lufs"], delta=0.05)
        self.assertIsNone(results[2]["integrated_lufs"])
        self.assertIsNone(results[2]["track_gain_db"])
        self.assertEqual(results[3]["error"]["code"], "Efor")

    def test_normalize_reaches_the_target_under_the_ceiling(self):
        wav = self.tones("loud", [(8, -6)], 440)
        mp3 = os.path.join(self.dir, "loud.mp3")
        subprocess.run(["lame", "--quiet", "-b", "160", wav, mp3], check=True)
        out_dir = os.path.join(self.dir, "normalised")
        os.mkdir(out_dir)
        p = subprocess.run([KEL, "normalize", wav, mp3, "--target", "-20", "--out-dir", out_dir], capture_output=True,
                           text=True, check=True)
        reported = [float(x) for x in re.findall(r"(-?[\d.]+) LUFS after", p.stdout)]
        after = loudness(os.path.join(out_dir, "loud.wav"), os.path.join(out_dir, "loud.mp3"))
        self.assertAlmostEqual(after[0]["integrated_lufs"], -20.0, delta=0.1)  # exact scaling
        self.assertLessEqual(abs(after[1]["integrated_lufs"] + 20.0), 0.76 + 0.1)  # the nearest 1.5 dB step
        for r, said in zip(after, reported):
            self.assertAlmostEqual(r["integrated_lufs"], said, delta=0.1)
        # A ceiling below what the target needs wins; in place, the file is replaced whole.
        subprocess.run([KEL, "normalize", mp3, "--target", "-3", "--max-true-peak", "-4", "--in-place"],
                       capture_output=True, check=True)
        self.assertLessEqual(loudness(mp3)[0]["true_peak_dbtp"], -4.0 + 0.2)

    def test_tag_writes_replaygain_and_leaves_the_audio(self):
        wav = self.tones("tagged", [(4, -12)], 440)
        m4a = os.path.join(self.dir, "tagged.m4a")
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", "-i", wav, "-c:a", "aac", "-metadata", "title=T",
                        m4a], check=True)
        mp3 = os.path.join(self.dir, "tagged.mp3")
        subprocess.run(["lame", "--quiet", "-b", "128", "--tt", "T", wav, mp3], check=True)
        for path in (mp3, m4a):
            with self.subTest(os.path.basename(path)):
                decoded = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "f32le", "-"],
                                         capture_output=True, check=True).stdout
                r = loudness("--album", "--tag", path)[0]
                tags = json.loads(subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format_tags", "-of",
                                                  "json", path], capture_output=True, text=True,
                                                 check=True).stdout)["format"]["tags"]
                tags = {k.lower(): v for k, v in tags.items()}
                self.assertEqual(tags["title"], "T")
                self.assertAlmostEqual(float(tags["replaygain_track_gain"].split()[0]), r["track_gain_db"], delta=0.006)
                self.assertAlmostEqual(float(tags["replaygain_album_gain"].split()[0]), r["album_gain_db"], delta=0.006)
                self.assertAlmostEqual(float(tags["replaygain_track_peak"]), 10 ** (r["true_peak_dbtp"] / 20),
                                       delta=1e-5)
                after = subprocess.run(["ffmpeg", "-v", "error", "-i", path, "-f", "f32le", "-"],
                                       capture_output=True, check=True).stdout
                self.assertEqual(after, decoded)

    def test_coded_file_agrees_with_ffmpeg(self):
        wav = os.path.join(self.dir, "music.wav")
        subprocess.run(["sox", "-R", "-n", "-r", "44100", "-c", "2", "-b", "16", wav, "synth", "12", "pinknoise",
                        "synth", "12", "sine", "amod", "3", "gain", "-8"], check=True)
        mp3 = os.path.join(self.dir, "music.mp3")
        subprocess.run(["lame", "--quiet", "-b", "192", wav, mp3], check=True)
        for path in (wav, mp3):
            with self.subTest(os.path.basename(path)):
                r = loudness(path)[0]
                log = subprocess.run(["ffmpeg", "-nostats", "-i", path, "-af", "ebur128=peak=true", "-f", "null",
                                      "-"], capture_output=True, text=True).stderr
                summary = log[log.rindex("Summary:"):]
                integrated = float(re.search(r"I:\s+(-?[\d.]+) LUFS", summary).group(1))
                true_peak = float(re.search(r"True peak:\s+Peak:\s+(-?[\d.]+) dBFS", summary).group(1))
                self.assertAlmostEqual(r["integrated_lufs"], integrated, delta=0.1)
                self.assertAlmostEqual(r["true_peak_dbtp"], true_peak, delta=0.2)


if __name__ == "__main__":
    KEL = sys.argv.pop(1)
    unittest.main(verbosity=2)
