#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Configures the project without the tools that some tests need.

  configure_test.py ROOT CMAKE
"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT, CMAKE = sys.argv[1:3]
PACKAGES = {
    "LUMORA_PYTHON": "python3",
    "LUMORA_ABIDIFF": "abigail-tools",
    "LUMORA_CLANG": "clang",
    "LUMORA_CHROMIUM": "chromium",
    "LUMORA_CHROMEDRIVER": "chromium-driver",
    "LUMORA_MOUNT_NAMESPACE": "a mount namespace",
}
BOUND = 60  # seconds for each command


class ConfigureTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="lumora-configure-")
        self.addCleanup(folder.cleanup)
        self.build = pathlib.Path(folder.name)

    def configure(self, missing, *options):
        """Configures as if the given tools were not installed: OFF in the cache counts as not found."""
        return subprocess.run([CMAKE, "-S", ROOT, "-B", self.build, "-DCMAKE_BUILD_TYPE=Debug",
                               *(f"-D{tool}=OFF" for tool in missing), *options],
                              capture_output=True, encoding="utf-8", timeout=BOUND)

    def test_succeeds_without_tools_and_names_packages(self):
        result = self.configure(PACKAGES)
        self.assertEqual(result.returncode, 0, result.stderr)
        report = subprocess.run([str(pathlib.Path(CMAKE).with_name("ctest")), "-R", "needs"], cwd=self.build,
                                capture_output=True, encoding="utf-8", timeout=BOUND)
        self.assertEqual(report.returncode, 0, report.stdout)
        skipped = report.stdout.partition("The following tests did not run:")[2]
        for package in PACKAGES.values():
            self.assertIn(package, skipped)
        self.assertEqual(skipped.count("(Skipped)"), skipped.count("(needs "), skipped)

    def test_skips_only_tests_of_missing_tool(self):
        self.assertEqual(self.configure(["LUMORA_CHROMIUM"]).returncode, 0)
        listed = subprocess.run([str(pathlib.Path(CMAKE).with_name("ctest")), "-N", "-L", "host|page"], cwd=self.build,
                                capture_output=True, encoding="utf-8", timeout=BOUND).stdout
        self.assertIn("Host.Page (needs chromium)\n", listed)
        self.assertIn("Host.UsageTexts\n", listed)

    def test_fails_when_all_tests_are_required(self):
        for tool, package in PACKAGES.items():
            with self.subTest(tool):
                result = self.configure([tool], "-DLUMORA_REQUIRE_ALL_TESTS=ON")
                self.assertEqual(result.returncode, 1)
                self.assertRegex(result.stderr, rf"needs\s+{package}\b")
                (self.build / "CMakeCache.txt").unlink()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
