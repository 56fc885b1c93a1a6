#!/usr/bin/env python3
"""Tags through the kel tool's saves: every item within a container (cover
pictures included), the common fields and the cover across containers,
none with --no-tags, and a tag block that cannot be read costs the tags
only. Outputs are read back with ffprobe and ffmpeg, inputs made with
sox, lame and ffmpeg.

usage: test_cli_tags.py PATH_TO_KEL
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

KEL = None
# As ffmpeg names them; lame and ffmpeg write them all.
FIELDS = {"title": "KEL Title \u00e9t\u00e9", "artist": "KEL Artist", "album": "KEL Album", "track": "3/12",
          "date": "2021", "genre": "Ambient", "comment": "KEL comment"}


def run(*args):
    p = subprocess.run([KEL, *map(str, args)], capture_output=True, text=True, timeout=300)
    for marker in ("Sanitizer", "runtime error"):
        assert marker not in p.stderr, p.stderr
    assert p.returncode == 0, f"status {p.returncode}\n{p.stdout}\n{p.stderr}"
    return p


def read(path):
    with open(path, "rb") as f:
        return f.read()


def ffmpeg(*args):
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-y", *map(str, args)], check=True)


def probe(path):
    """(format tags with lower-case keys, codec names of the streams)."""
    out = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "format_tags:stream=codec_name,codec_type",
                          "-of", "json", path], capture_output=True, text=True, check=True).stdout
    info = json.loads(out)
    tags = {k.lower(): v for k, v in info.get("format", {}).get("tags", {}).items()}
    return tags, [s["codec_name"] for s in info["streams"]]


def common(tags):
    return {k: tags.get(k) for k in FIELDS}


def cover_of(path):
    """The bytes of the attached picture, as ffmpeg demuxes them."""
    return subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-map", "0:v", "-c", "copy", "-f",
                           "image2pipe", "-"], capture_output=True, check=True).stdout


def decoded_seconds(path):
    raw = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-xerror", "-i", path, "-f", "s16le", "-ac", "1",
                          "-ar", "44100", "-"], capture_output=True, check=True).stdout
    return len(raw) / 2 / 44100


class Tags(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="kel-cli-tags.")
        cls.wav = cls.path("plain.wav")
        subprocess.run(["sox", "-R", "-n", "-r", "44100", "-c", "2", "-b", "16", cls.wav, "synth", "2", "sine", "440",
                        "sine", "660", "gain", "-12"], check=True)
        cls.png = cls.path("cover.png")
        ffmpeg("-f", "lavfi", "-i", "testsrc=size=24x16", "-frames:v", "1", cls.png)
        cls.cover = read(cls.png)
        # lame writes ID3v2 (with the picture) and ID3v1.
        cls.mp3 = cls.path("tagged.mp3")
        f = FIELDS
        subprocess.run(["lame", "--quiet", "-b", "128", "--tt", f["title"], "--ta", f["artist"], "--tl", f["album"],
                        "--tn", f["track"], "--ty", f["date"], "--tg", f["genre"], "--tc", f["comment"], "--ti",
                        cls.png, cls.wav, cls.mp3], check=True)
        metadata = [a for k, v in FIELDS.items() for a in ("-metadata", f"{k}={v}")]
        cls.m4a = cls.path("tagged.m4a")
        ffmpeg("-i", cls.wav, "-i", cls.png, "-map", "0", "-map", "1", "-c:a", "aac", "-b:a", "128k", "-c:v", "copy",
               "-disposition:v", "attached_pic", *metadata, cls.m4a)
        cls.tagged_wav = cls.path("tagged.wav")
        ffmpeg("-i", cls.wav, "-c", "copy", *metadata, cls.tagged_wav)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    @classmethod
    def path(cls, name):
        return os.path.join(cls.dir, name)

    def assertCarried(self, source, out, every_item):
        want, _ = probe(source)
        got, streams = probe(out)
        self.assertEqual(common(got), FIELDS, out)
        if every_item:
            # The container's own fields are the new file's. TagLib renders
            # what it reads, so the output may show more than ffmpeg reads
            # in the source (lame's comment frame), never less.
            for key in ("major_brand", "minor_version", "compatible_brands", "creation_time"):
                want.pop(key, None)
            # lame's length frame would be wrong after an edit and is left out.
            want.pop("tlen", None)
            self.assertNotIn("tlen", got)
            self.assertEqual({k: got.get(k) for k in want}, want, out)
        self.assertIn("png", streams, out)
        self.assertEqual(cover_of(out), self.cover, out)

    def test_mp3_saves_keep_every_frame_the_picture_and_id3v1(self):
        self.assertIn("tlen", probe(self.mp3)[0])
        for command, extra in (("gain", ["--db", -3]), ("copy", ["--start", 0.5, "--end", 1.5]),
                               ("fade", ["--in", 0.5])):
            out = self.path(command + ".mp3")
            run(command, self.mp3, *extra, "-o", out)
            self.assertCarried(self.mp3, out, every_item=True)
            data = read(out)
            # ID3v1 at the very end; the audio behind the ID3v2 tag starts
            # with the Info frame.
            self.assertEqual(data[-128:-125], b"TAG")
            self.assertIn(b"KEL Album", data[-128:])
            size = (data[6] & 0x7F) << 21 | (data[7] & 0x7F) << 14 | (data[8] & 0x7F) << 7 | (data[9] & 0x7F)
            self.assertEqual(data[10 + size + 36:10 + size + 40], b"Info")

    def test_m4a_saves_keep_every_ilst_item_and_the_cover(self):
        gained = self.path("gain.m4a")
        run("gain", self.m4a, "--db", -3, "-o", gained)
        self.assertCarried(self.m4a, gained, every_item=True)
        self.assertGreater(decoded_seconds(gained), 1.9)
        # Apple Lossless keeps them too, also through a cut.
        alac = self.path("lossless.m4a")
        run("convert", self.m4a, "--lossless", "-o", alac)
        cut = self.path("cut-lossless.m4a")
        run("cut", alac, "--start", 0.5, "--end", 1.0, "-o", cut)
        self.assertIn("alac", probe(cut)[1])
        self.assertCarried(self.m4a, cut, every_item=True)

    def test_conversions_map_the_common_fields_and_the_cover(self):
        for source, name in ((self.mp3, "from-mp3.m4a"), (self.m4a, "from-m4a.mp3"), (self.mp3, "from-mp3.aiff"),
                             (self.m4a, "from-m4a.wav")):
            out = self.path(name)
            run("convert", source, "-o", out)
            self.assertCarried(source, out, every_item=False)
        # RIFF INFO holds no picture; its fields reach an MP3, and a WAVE
        # cut keeps them as they are.
        out = self.path("from-wav.mp3")
        run("convert", self.tagged_wav, "-o", out)
        self.assertEqual(common(probe(out)[0]), FIELDS)
        cut = self.path("cut.wav")
        run("cut", self.tagged_wav, "--start", 0.5, "--end", 1.0, "-o", cut)
        self.assertEqual(probe(cut)[0], probe(self.tagged_wav)[0])
        # AIFF's own text chunks: kept by a cut, mapped into an MP3.
        aiff = self.path("text.aiff")
        ffmpeg("-i", self.wav, "-metadata", "title=" + FIELDS["title"], "-metadata", "author=" + FIELDS["artist"],
               "-metadata", "comment=" + FIELDS["comment"], aiff)
        cut = self.path("cut.aiff")
        run("cut", aiff, "--start", 0.5, "--end", 1.0, "-o", cut)
        self.assertEqual(probe(cut)[0], probe(aiff)[0])
        out = self.path("from-aiff.mp3")
        run("convert", aiff, "-o", out)
        self.assertEqual({k: probe(out)[0].get(k) for k in ("title", "artist", "comment")},
                         {k: FIELDS[k] for k in ("title", "artist", "comment")})

    def test_splice_takes_the_first_files_tags_and_no_tags_drops_them(self):
        plain = self.path("plain.mp3")
        subprocess.run(["lame", "--quiet", "-b", "128", self.wav, plain], check=True)
        out = self.path("splice.mp3")
        run("splice", self.mp3, "--insert", plain, "-o", out)
        self.assertCarried(self.mp3, out, every_item=True)
        out = self.path("splice-plain.mp3")
        run("splice", plain, "--insert", self.mp3, "-o", out)
        self.assertEqual(probe(out), ({}, ["mp3"]))

        for source, name in ((self.mp3, "bare.mp3"), (self.m4a, "bare.m4a"), (self.tagged_wav, "bare.wav")):
            out = self.path(name)
            run("gain", source, "--db", -1.5, "--no-tags", "-o", out)
            tags, streams = probe(out)
            self.assertEqual(common(tags), dict.fromkeys(FIELDS), out)
            self.assertNotIn("png", streams, out)
            self.assertNotIn(b"KEL Artist", read(out), out)

    def test_unreadable_tags_cost_the_tags_only(self):
        # A tag whose size is right but whose body is no frame at all.
        clean = self.path("audio.mp3")
        subprocess.run(["lame", "--quiet", "-b", "128", self.wav, clean], check=True)
        audio = read(clean)
        body = bytes((i * 37 + 11) % 251 + 1 for i in range(600))
        broken = self.path("broken.mp3")
        with open(broken, "wb") as f:
            f.write(b"ID3\x04\x00\x00" + bytes([0, 0, 600 >> 7, 600 & 0x7F]) + body + audio)
        out = self.path("from-broken.mp3")
        p = run("gain", broken, "--db", -3, "-o", out)
        warnings = [line for line in p.stderr.splitlines() if line.startswith("kel: warning:")]
        self.assertEqual(len(warnings), 1, p.stderr)
        self.assertIn("tags", warnings[0])
        # Exactly what the same source without the tag gives.
        reference = self.path("from-clean.mp3")
        run("gain", clean, "--db", -3, "-o", reference)
        self.assertEqual(read(out), read(reference))
        self.assertGreater(decoded_seconds(out), 1.9)
        # CAF has no place for them: the same warning, the audio whole.
        caf = self.path("tagged.caf")
        p = run("convert", self.mp3, "-o", caf)
        self.assertIn("kel: warning:", p.stderr)
        self.assertGreater(decoded_seconds(caf), 1.9)


if __name__ == "__main__":
    KEL = sys.argv.pop(1)
    unittest.main(verbosity=2)
