#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds a built library to what it may ask of others: which libraries, and of jsoncpp only the calls of every series.

  dependencies_test.py LIBRARY
"""
import re
import subprocess
import sys
import unittest

LIBRARY = sys.argv.pop()
LIBRARIES = {"libglib-2.0", "libjsoncpp", "libsqlite3", "libstdc++", "libm", "libgcc_s", "libc", "ld-linux",
             "ld-linux-armhf", "ld-linux-x86-64"}

# What the series 0.x declares too; moves come with C++11, and the compiler takes the copies where they are missing.
JSON_CALLS = {
    "FastWriter::FastWriter", "FastWriter::write", "Reader::Reader", "Reader::parse", "Writer::~Writer",
    "Value::Value", "Value::~Value", "Value::operator=", "Value::operator[]", "Value::append", "Value::clear",
    "Value::removeMember", "Value::size", "Value::asBool", "Value::asDouble", "Value::asInt", "Value::asString",
    "Value::asUInt", "Value::asUInt64", "Value::isArray", "Value::isBool", "Value::isDouble", "Value::isInt",
    "Value::isNull", "Value::isNumeric", "Value::isObject", "Value::isString", "Value::isUInt",
}


def output(*command):
    return subprocess.run(command, check=True, encoding="utf-8", stdout=subprocess.PIPE, timeout=60).stdout


class DependenciesTest(unittest.TestCase):
    def test_links_what_it_is_built_on_and_nothing_else(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*?)\.so", output("readelf", "--dynamic", "--wide", LIBRARY))
        self.assertEqual(set(needed) - LIBRARIES, set())
        self.assertLessEqual({"libglib-2.0", "libjsoncpp", "libsqlite3"}, set(needed))

    def test_calls_of_jsoncpp_what_every_series_has(self):
        undefined = output("nm", "--dynamic", "--undefined-only", "--demangle", LIBRARY)
        calls = set(re.findall(r" U Json::([^(\[]+(?:\[\])?)", undefined))
        self.assertIn("Value::append", calls, "this test reads the list wrongly")
        self.assertEqual(calls - JSON_CALLS, set())


if __name__ == "__main__":
    unittest.main()
