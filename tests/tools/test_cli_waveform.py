#!/usr/bin/env python3
"""kel overview's waveform data (.dat and .json) read back by the npm package
waveform-data, the reader web players use: its header fields and each
channel's min/max arrays must be the library's overview values (kel overview
--text at the same zoom) or, for --channels stereo, each channel's extremes
computed here from the WAVE file's samples.

The package is installed with npm into CACHE_DIR (kept between runs); no
npm or no registry is a failure, not a skip.

usage: test_cli_waveform.py PATH_TO_KEL CACHE_DIR
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

KEL = None
CACHE = None

READER = r"""
const WaveformData = require('waveform-data');
const fs = require('fs');
const name = process.argv[1];
const bytes = fs.readFileSync(name);
const w = name.endsWith('.json') ? WaveformData.create(JSON.parse(bytes))
    : WaveformData.create(bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length));
const channels = [];
for (let c = 0; c < w.channels; c++)
  channels.push({min: w.channel(c).min_array(), max: w.channel(c).max_array()});
console.log(JSON.stringify({sample_rate: w.sample_rate, scale: w.scale, bits: w.bits, length: w.length, channels}));
"""


def run(*args):
    p = subprocess.run([KEL, *map(str, args)], capture_output=True, text=True, timeout=300)
    for marker in ("Sanitizer", "runtime error"):
        assert marker not in p.stderr, p.stderr
    assert p.returncode == 0, f"status {p.returncode}\n{p.stdout}\n{p.stderr}"
    return p.stdout


def install_reader():
    modules = os.path.join(CACHE, "node_modules")
    if os.path.isfile(os.path.join(modules, "waveform-data", "package.json")):
        return modules
    if shutil.which("npm") is None or shutil.which("node") is None:
        raise AssertionError("node and npm are needed to read waveform data back (scripts/install-deps.sh installs them)")
    os.makedirs(CACHE, exist_ok=True)
    p = subprocess.run(["npm", "install", "--prefix", CACHE, "--no-audit", "--no-fund", "waveform-data"],
                       capture_output=True, text=True, timeout=300)
    if p.returncode != 0:
        raise AssertionError("npm could not install waveform-data (is the registry reachable?):\n" + p.stderr)
    return modules


def read_back(modules, path):
    p = subprocess.run(["node", "-e", READER, path], capture_output=True, text=True, check=True,
                       env=dict(os.environ, NODE_PATH=modules))
    return json.loads(p.stdout)


def scaled(value, bits):
    top = 127 if bits == 8 else 32767
    return max(-top - 1, min(top, math.floor(value * top)))


class WaveformDataFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.modules = install_reader()
        cls.dir = tempfile.mkdtemp(prefix="kel-cli-waveform.")
        # Left a sine growing to 0.9, right a quieter one falling from 0.5,
        # so that the channels and the mono mix all differ pixel by pixel.
        cls.frames = 100000
        cls.left = [0.9 * i / cls.frames * math.sin(i / 7.3) for i in range(cls.frames)]
        cls.right = [0.5 * (1 - i / cls.frames) * math.sin(i / 3.1) for i in range(cls.frames)]
        cls.wav = os.path.join(cls.dir, "two.wav")
        with wave.open(cls.wav, "wb") as w:
            w.setnchannels(2)
            w.setsampwidth(2)
            w.setframerate(44100)
            w.writeframes(b"".join(struct.pack("<hh", round(a * 32767), round(b * 32767))
                                   for a, b in zip(cls.left, cls.right)))
        cls.mp3 = os.path.join(cls.dir, "two.mp3")
        subprocess.run(["lame", "--quiet", "-b", "128", cls.wav, cls.mp3], check=True)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def test_mono_holds_the_overview_values(self):
        for source, name, args, spp, bits in ((self.mp3, "a.dat", [], 256, 16),
                                               (self.wav, "b.json", ["--bits", 8, "--samples-per-pixel", 1000], 1000, 8),
                                               (self.mp3, "c.json", ["--pixels-per-second", 100, "--bits", 16], 441, 16)):
            out = os.path.join(self.dir, name)
            run("overview", source, "-o", out, *args)
            got = read_back(self.modules, out)
            decoded = json.loads(run("info", "--json", source))[0]["packets"]
            packet = 1152 if source == self.mp3 else 1024
            self.assertEqual((got["sample_rate"], got["scale"], got["bits"], len(got["channels"])),
                             (44100, spp, bits, 1), name)
            self.assertEqual(got["length"], math.ceil(decoded * packet / spp), name)
            text = run("overview", source, "--text", "--width", got["length"]).splitlines()
            pairs = [tuple(map(float, line.split()[2:])) for line in text if not line.startswith("#")]
            self.assertEqual(len(pairs), got["length"], name)
            channel = got["channels"][0]
            for i, (hi, lo) in enumerate(pairs):
                # --text prints six decimals: floor may land one step apart.
                self.assertAlmostEqual(channel["max"][i], scaled(hi, bits), delta=1, msg=f"{name} pixel {i}")
                self.assertAlmostEqual(channel["min"][i], scaled(lo, bits), delta=1, msg=f"{name} pixel {i}")
            self.assertGreater(max(channel["max"]), scaled(0.3, bits), name)

    def test_stereo_holds_each_channels_extremes(self):
        out = os.path.join(self.dir, "s.dat")
        run("overview", self.wav, "-o", out, "--channels", "stereo", "--samples-per-pixel", 300)
        got = read_back(self.modules, out)
        # The clip's last packet is decoded whole: silence completes it.
        total = math.ceil(self.frames / 1024) * 1024
        self.assertEqual((got["scale"], got["length"]), (300, math.ceil(total / 300)))
        for samples, channel in ((self.left, got["channels"][0]), (self.right, got["channels"][1])):
            stored = [round(v * 32767) / 32768 for v in samples] + [0.0] * (total - self.frames)
            for i in range(got["length"]):
                piece = stored[i * 300:(i + 1) * 300]
                self.assertAlmostEqual(channel["min"][i], scaled(min(piece), 16), delta=1, msg=f"pixel {i}")
                self.assertAlmostEqual(channel["max"][i], scaled(max(piece), 16), delta=1, msg=f"pixel {i}")


if __name__ == "__main__":
    KEL = sys.argv.pop(1)
    CACHE = sys.argv.pop(1)
    unittest.main(verbosity=2)
