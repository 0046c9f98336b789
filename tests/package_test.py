"""The installed files: exported names, shared-object name, a host built with the package alone."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["TOL_BUILD"])
SOURCE = pathlib.Path(os.environ["TOL_SOURCE"])


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                          errors="replace", **options)
    assert done.returncode == 0, f"{command}: {done.stdout}{done.stderr}"
    return done.stdout


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.prefix = cls.folder / "prefix"
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        cls.library = next(cls.prefix.glob("lib*/**/libTolCompatibleLib.so"))

    def test_exports_only_the_declared_entry_points(self):
        symbols = run("nm", "-D", "--defined-only", self.library).split("\n")
        exported = {line.split()[-1] for line in symbols if line}
        header = (self.prefix / "include/TolCompatible/TolCompatible.h").read_text()
        declared = set(re.findall(r"^VSA_API \w+ (Vsa\w+)\(", header, re.MULTILINE))
        self.assertEqual(len(declared), 14)
        self.assertEqual(exported, declared)

    def test_shared_object_name_has_the_major_version(self):
        self.assertRegex(run("readelf", "-d", self.library),
                         r"SONAME.*\[libTolCompatibleLib\.so\.\d+\]")

    def test_optimised_files_are_hardened(self):
        options = (BUILD / "CMakeCache.txt").read_text()
        wanted = "CMAKE_BUILD_TYPE:STRING=Release\n", "TOL_HARDENING:BOOL=ON\n"
        if not all(option in options for option in wanted):
            self.skipTest("only optimised builds are hardened")
        run(SOURCE / "scripts/check-hardening", self.library, self.prefix / "bin/vsa")

    def test_missing_dependencies_are_listed_with_how_to_install_them(self):
        done = subprocess.run(["cmake", "-S", SOURCE, "-B", self.folder / "missing",
                               *(f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON" for name in ("glog", "CURL"))],
                              capture_output=True, text=True)
        self.assertNotEqual(done.returncode, 0)
        self.assertRegex(done.stderr, r"glog \(.*libgoogle-glog-dev(?s:.*)CURL \(.*libcurl")

    def test_installed_host_finds_the_installed_library(self):
        self.assertIn("pub20240113", run(self.prefix / "bin/vsa", "--version"))

    def test_host_builds_and_runs_with_the_package_alone(self):
        folder = self.folder
        moved = folder / "moved"
        run("cp", "-a", self.prefix, moved)
        host = SOURCE / "examples/host"
        header = moved / "include/TolCompatible/TolCompatible.h"
        includes = re.findall(r"#include <(.*)>", header.read_text())
        self.assertTrue(all("." not in name and "/" not in name for name in includes), includes)
        self.assertIn((host / "main.cpp").read_text(), (SOURCE / "README.md").read_text())

        warnings = "-Wall -Wextra -Wpedantic -Werror"
        run("cmake", "-S", host, "-B", folder / "host", f"-DCMAKE_PREFIX_PATH={moved}",
            f"-DCMAKE_CXX_FLAGS={warnings}")
        run("cmake", "--build", folder / "host")
        programs = [folder / "host/ReadText"]
        is_bundled = any(moved.glob("lib*/**/TolCompatible/libopenvino.so.*"))
        engines = moved if is_bundled else ""
        if shutil.which("pkg-config"):
            package = next(moved.glob("lib*/**/pkgconfig"))
            flags = run("pkg-config", "--cflags", "--libs", "TolCompatibleLib",
                        env={**os.environ, "PKG_CONFIG_PATH": str(package)})
            self.assertNotIn(str(self.prefix), flags)
            programs.append(folder / "ReadText")
            run("c++", "-std=c++17", *warnings.split(), host / "main.cpp", "-o", programs[-1],
                *flags.split(), f"-Wl,-rpath,{package.parent}")

        image = folder / "grey.ppm"
        image.write_bytes(b"P6 64 48 255\n" + bytes([128]) * (64 * 48 * 3))
        models = os.environ.get("TOL_MODELS", "")
        for program in programs:
            loaded = run("ldd", program)
            self.assertIn(f"{moved}/lib", loaded)
            self.assertNotIn("not found", loaded)
            for name in ("openvino", "onnxruntime", "tbb"):
                self.assertRegex(loaded, rf"lib{name}\.so\S* => {engines}/")
            missing = subprocess.run([program, "nowhere", image], capture_output=True, text=True)
            self.assertEqual(missing.returncode, 1)  # the engine's exception was caught
            self.assertIn("nowhere", missing.stderr)
            if pathlib.Path(models, "text/detection.xml").exists():
                self.assertEqual(run(program, models, image), "")


if __name__ == "__main__":
    unittest.main()
