#!/usr/bin/env python3
"""Reads the version resource back out of every shipped file of a Windows build with a PE reader
of its own (not the tool that wrote it): fixed and string versions from the project version,
company, product, description and original file name; and the resource libraries stay 32-bit
images of a resource section alone, which a 64-bit service can load.
Usage: version_resources_test.py --build <dir> --version x.y.z"""

import argparse
import os
import struct
import sys
import unittest

RT_VERSION = 16
MACHINE_I386, MACHINE_AMD64 = 0x14C, 0x8664
EXECUTABLES = {
    "NorvikTime.exe": "Norvik Time Service",
    "TroubleMonitor.exe": "Norvik trouble monitor",
    "SntpQuery.exe": "Norvik SNTP query",
}
LIBRARY_DESCRIPTION = "Norvik Time Service message texts, "


class PeImage:
    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        if self.data[:2] != b"MZ":
            raise ValueError(f"{path}: not an image")
        nt = struct.unpack_from("<I", self.data, 60)[0]
        if self.data[nt:nt + 4] != b"PE\0\0":
            raise ValueError(f"{path}: no PE signature")
        self.machine, count = struct.unpack_from("<HH", self.data, nt + 4)
        optional_size = struct.unpack_from("<H", self.data, nt + 20)[0]
        table = nt + 24 + optional_size
        self.sections = []
        for i in range(count):
            name, _, address, _, offset = struct.unpack_from("<8sIIII", self.data, table + 40 * i)
            self.sections.append((name.rstrip(b"\0").decode(), address, offset))

    def resource(self, type_id):
        """The data of the first resource of type_id (first name, first language), or None."""
        section = next((s for s in self.sections if s[0] == ".rsrc"), None)
        if section is None:
            return None
        _, address, base = section

        def entries(directory):
            named, ids = struct.unpack_from("<HH", self.data, base + directory + 12)
            for i in range(named + ids):
                yield struct.unpack_from("<II", self.data, base + directory + 16 + 8 * i)

        for ident, target in entries(0):
            if ident == type_id and target & 0x80000000:
                _, names = next(entries(target & 0x7FFFFFFF))
                _, language = next(entries(names & 0x7FFFFFFF))
                rva, size = struct.unpack_from("<II", self.data, base + language)
                start = rva - address + base
                return self.data[start:start + size]
        return None


def parse_block(data, at):
    """One VS_VERSIONINFO-style node: (key, value bytes, children, end)."""
    length, value_length, kind = struct.unpack_from("<HHH", data, at)
    end = at + length
    key_end = at + 6
    while data[key_end:key_end + 2] != b"\0\0":
        key_end += 2
    key = data[at + 6:key_end].decode("utf-16-le")
    value_at = (key_end + 2 + 3) & ~3
    value_size = value_length * 2 if kind == 1 else value_length
    value = data[value_at:value_at + value_size]
    children = []
    child = (value_at + value_size + 3) & ~3
    while child < end:
        node = parse_block(data, child)
        children.append(node)
        child = (node[3] + 3) & ~3
    return key, value, children, end


def read_version(path):
    """(file version, product version, file type, {string name: value}) of an image."""
    data = PeImage(path).resource(RT_VERSION)
    if data is None:
        raise AssertionError(f"{path}: no version resource")
    key, fixed, children, _ = parse_block(data, 0)
    assert key == "VS_VERSION_INFO", key
    signature, _, file_ms, file_ls, product_ms, product_ls = struct.unpack_from("<6I", fixed, 0)
    assert signature == 0xFEEF04BD, hex(signature)
    file_type = struct.unpack_from("<I", fixed, 36)[0]

    def dotted(ms, ls):
        return f"{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}.{ls & 0xFFFF}"

    strings = {}
    for name, _, tables, _ in children:
        if name == "StringFileInfo":
            for name_, value, _, _ in tables[0][2]:
                strings[name_] = value.decode("utf-16-le").rstrip("\0")
    return dotted(file_ms, file_ls), dotted(product_ms, product_ls), file_type, strings


class VersionResourceTest(unittest.TestCase):
    build = None
    version = None

    def libraries(self):
        folder = os.path.join(self.build, "config")
        names = sorted(n for n in os.listdir(folder) if n.startswith("res") and n.endswith(".dll")
                       and n[3:-4].isdigit())
        self.assertIn("res1033.dll", names)
        return [(os.path.join(folder, n), n) for n in names]

    def check(self, path, name, file_type, description):
        file_version, product_version, kind, strings = read_version(path)
        self.assertEqual((self.version + ".0", self.version + ".0", file_type),
                         (file_version, product_version, kind), name)
        self.assertEqual("Norvik", strings.get("CompanyName"), name)
        self.assertEqual("Norvik Time Service", strings.get("ProductName"), name)
        self.assertEqual(self.version, strings.get("FileVersion"), name)
        self.assertEqual(self.version, strings.get("ProductVersion"), name)
        self.assertEqual(name, strings.get("OriginalFilename"), name)
        self.assertTrue(strings.get("FileDescription", "").startswith(description), strings)

    def test_every_executable_carries_its_version(self):
        for name, description in EXECUTABLES.items():
            with self.subTest(name=name):
                path = os.path.join(self.build, name)
                self.assertEqual(MACHINE_AMD64, PeImage(path).machine)
                self.check(path, name, 1, description)

    def test_every_resource_library_carries_its_version_and_stays_code_free(self):
        for path, name in self.libraries():
            with self.subTest(name=name):
                image = PeImage(path)
                self.assertEqual(MACHINE_I386, image.machine)
                self.assertEqual([".rsrc"], [s[0] for s in image.sections])
                self.check(path, name, 2, LIBRARY_DESCRIPTION)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--version", required=True)
    arguments, rest = parser.parse_known_args()
    VersionResourceTest.build = os.path.abspath(arguments.build)
    VersionResourceTest.version = arguments.version
    unittest.main(argv=[sys.argv[0], "-v", *rest])
