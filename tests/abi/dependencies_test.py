#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks which libraries the built library links, and that it calls only functions that every jsoncpp version has.

  dependencies_test.py LIBRARY
"""
import re
import subprocess
import sys
import unittest

LIBRARY = sys.argv.pop()
LIBRARIES = {"libglib-2.0", "libjsoncpp", "libsqlite3", "libstdc++", "libm", "libgcc_s", "libc", "ld-linux",
             "ld-linux-armhf", "ld-linux-x86-64"}

# Functions that jsoncpp 0.x declares too. It has no move operations; there the compiler uses the copy operations.
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
    def test_links_only_the_listed_libraries(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*?)\.so", output("readelf", "--dynamic", "--wide", LIBRARY))
        self.assertEqual(set(needed) - LIBRARIES, set(), "the library must not link these")
        self.assertLessEqual({"libglib-2.0", "libjsoncpp", "libsqlite3"}, set(needed),
                             "an expected library is not linked")

    def test_calls_only_functions_of_every_jsoncpp(self):
        undefined = output("nm", "--dynamic", "--undefined-only", "--demangle", LIBRARY)
        calls = set(re.findall(r" U Json::([^(\[]+(?:\[\])?)", undefined))
        self.assertIn("Value::append", calls, "the test does not understand the output of nm")
        self.assertEqual(calls - JSON_CALLS, set(), "the library calls these, which jsoncpp 0.x lacks")


if __name__ == "__main__":
    unittest.main()
