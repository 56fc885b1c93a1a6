#!/usr/bin/env python3
"""Installs the build into a scratch prefix and uses it as a consumer
would: a C program built through find_package(kel) and one through
pkg-config, both run against the installed libkel.so; the manual page and
the bash completion are in place, and the completion offers exactly the
options each command's --help lists.

usage: test_install.py BUILD_DIR C_COMPILER
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

BUILD = CC = None

CONSUMER = r"""
#include <kel.h>
#include <stdio.h>
int main(void)
{
    kel_error_t* e = kel_error_create(KEL_ERR_FORMAT_UNRECOGNIZED, NULL);
    printf("%s\n", kel_error_recovery_suggestion(e));
    kel_error_free(e);
    return 0;
}
"""


# A sanitizer build's library brings its runtime along as a dependency, after
# the consumer's own libraries; the consumers are not instrumented.
RUN_ENV = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"}


def sh(*args, env=None):
    return subprocess.run(list(map(str, args)), capture_output=True, text=True, check=True,
                          env=dict(os.environ, **(env or {}))).stdout


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = Path(tempfile.mkdtemp(prefix="kel-install."))
        cls.prefix = cls.dir / "prefix"
        sh("cmake", "--install", BUILD, "--prefix", cls.prefix)
        cls.libdir = next(p.parent for p in cls.prefix.rglob("libkel.so"))
        (cls.dir / "main.c").write_text(CONSUMER)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def test_consumers_build_and_run(self):
        src = self.dir / "cmake-consumer"
        src.mkdir()
        shutil.copy(self.dir / "main.c", src)
        (src / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.18)\nproject(consumer C)\n"
                                            "find_package(kel 0.1 REQUIRED)\nadd_executable(consumer main.c)\n"
                                            "target_link_libraries(consumer PRIVATE kel::kel)\n")
        sh("cmake", "-S", src, "-B", src / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_C_COMPILER={CC}")
        sh("cmake", "--build", src / "build")
        self.assertIn("Unrecognized format", sh(src / "build" / "consumer", env=RUN_ENV))

        pc_env = {"PKG_CONFIG_PATH": str(self.libdir / "pkgconfig")}
        flags = sh("pkg-config", "--cflags", "--libs", "kel", env=pc_env).split()
        program = self.dir / "pc-consumer"
        sh(CC, self.dir / "main.c", *flags, "-o", program)
        self.assertIn("Unrecognized format", sh(program, env=dict(RUN_ENV, LD_LIBRARY_PATH=str(self.libdir))))

    def test_man_page_and_completion(self):
        kel = self.prefix / "bin" / "kel"
        env = {"LD_LIBRARY_PATH": str(self.libdir)}
        page = next(self.prefix.rglob("man1/kel.1")).read_text()
        commands = re.findall(r"^  (\w+) ", sh(kel, "--help", env=env), re.M)
        self.assertGreater(len(commands), 10)
        completion = next(self.prefix.rglob("bash-completion/completions/kel"))

        def complete(*words):
            script = (f"source {completion}; COMP_WORDS=(kel {' '.join(words)}); "
                      f"COMP_CWORD={len(words)}; _kel; printf '%s\\n' \"${{COMPREPLY[@]}}\"")
            return set(sh("bash", "-c", script).split())

        self.assertEqual(complete("''"), set(commands) | {"--help"})
        for command in commands:
            with self.subTest(command):
                self.assertIn(f".SS {command}\n", page)
                listed = re.findall(r"^  (?:(-\w), )?(--[\w-]+)", sh(kel, command, "--help", env=env), re.M)
                options = {name for pair in listed for name in pair if name}
                self.assertEqual(complete(command, "-"), options | {"--help"})


if __name__ == "__main__":
    BUILD, CC = sys.argv.pop(1), sys.argv.pop(1)
    unittest.main(verbosity=2)
