#!/usr/bin/env python3
"""Reads the version resource back out of every shipped file of a Windows build with a PE reader
of its own (not the tool that wrote it): fixed and string versions from the project version,
company, product, description and original file name; and the resource libraries stay 32-bit
images of a resource section alone, which a 64-bit service can load.
Usage: version_resources_test.py --build <dir> --version x.y.z"""

import argparse
import os
import re
import struct
import sys
import unittest

EXECUTABLES = {"NorvikTime.exe": "Norvik Time Service", "TroubleMonitor.exe": "Norvik trouble monitor",
               "SntpQuery.exe": "Norvik SNTP query"}


def read_image(path):
    """(machine, section names, data) of a PE image."""
    with open(path, "rb") as file:
        data = file.read()
    nt = struct.unpack_from("<I", data, 60)[0]
    assert data[:2] == b"MZ" and data[nt:nt + 4] == b"PE\0\0", path
    machine, count = struct.unpack_from("<HH", data, nt + 4)
    table = nt + 24 + struct.unpack_from("<H", data, nt + 20)[0]
    return machine, [data[table + 40 * i:table + 40 * i + 8].rstrip(b"\0").decode() for i in range(count)], data


def parse_block(data, at):
    """One VS_VERSIONINFO-style node: (key, value bytes, children, end)."""
    length, value_length, kind = struct.unpack_from("<HHH", data, at)
    key_end = at + 6
    while data[key_end:key_end + 2] != b"\0\0":
        key_end += 2
    value_at = (key_end + 2 + 3) & ~3
    value = data[value_at:value_at + (value_length * 2 if kind == 1 else value_length)]
    children, child = [], (value_at + len(value) + 3) & ~3
    while child < at + length:
        children.append(parse_block(data, child))
        child = (children[-1][3] + 3) & ~3
    return data[at + 6:key_end].decode("utf-16-le"), value, children, at + length


class VersionResourceTest(unittest.TestCase):
    def check(self, name, path, machine, file_type, description):
        image_machine, sections, data = read_image(path)
        self.assertEqual(machine, image_machine)
        # The version tree starts 6 bytes before its key; parsing it checks every node's lengths.
        key, fixed, children, _ = parse_block(data, data.index("VS_VERSION_INFO".encode("utf-16-le")) - 6)
        self.assertEqual("VS_VERSION_INFO", key)
        signature, _, file_ms, file_ls, product_ms, product_ls = struct.unpack_from("<6I", fixed, 0)
        dotted = [f"{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}.{ls & 0xFFFF}"
                  for ms, ls in ((file_ms, file_ls), (product_ms, product_ls))]
        self.assertEqual((0xFEEF04BD, [VERSION + ".0"] * 2, file_type),
                         (signature, dotted, struct.unpack_from("<I", fixed, 36)[0]))
        strings = {key: value.decode("utf-16-le").rstrip("\0") for child in children if child[0] == "StringFileInfo"
                   for key, value, _, _ in child[2][0][2]}
        self.assertEqual({"CompanyName": "Norvik", "ProductName": "Norvik Time Service", "FileVersion": VERSION,
                          "ProductVersion": VERSION, "OriginalFilename": name},
                         {key: strings.get(key) for key in ("CompanyName", "ProductName", "FileVersion",
                                                            "ProductVersion", "OriginalFilename")})
        self.assertTrue(strings.get("FileDescription", "").startswith(description), strings)
        return sections

    def test_every_executable_carries_its_version(self):
        for name, description in EXECUTABLES.items():
            with self.subTest(name=name):
                self.check(name, os.path.join(BUILD, name), 0x8664, 1, description)

    def test_every_resource_library_carries_its_version_and_stays_code_free(self):
        folder = os.path.join(BUILD, "config")
        names = sorted(n for n in os.listdir(folder) if re.fullmatch(r"res\d+\.dll", n))
        self.assertIn("res1033.dll", names)
        for name in names:
            with self.subTest(name=name):
                sections = self.check(name, os.path.join(folder, name), 0x14C, 2, "Norvik Time Service message texts, ")
                self.assertEqual([".rsrc"], sections)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--version", required=True)
    arguments, rest = parser.parse_known_args()
    BUILD, VERSION = os.path.abspath(arguments.build), arguments.version
    unittest.main(argv=[sys.argv[0], "-v", *rest])
