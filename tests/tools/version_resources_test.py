#!/usr/bin/env python3
"""Reads the version resource of every shipped file of a Windows build with a reader of its own (not
the writing tool's): fixed and string versions from the project's, company, product, description and
original file name; the resource libraries stay 32-bit images of resources alone, which a 64-bit
service can load. Usage: version_resources_test.py --build <dir> --version x.y.z"""

import argparse, os, re, struct, sys, unittest

EXECUTABLES = {"NorvikTime.exe": "Norvik Time Service", "TroubleMonitor.exe": "Norvik trouble monitor",
               "SntpQuery.exe": "Norvik SNTP query"}
KEYS = ("CompanyName", "ProductName", "FileVersion", "ProductVersion", "OriginalFilename", "FileDescription")


class VersionResourceTest(unittest.TestCase):
    def check(self, name, path, machine, file_type, description):
        """The image's section names, once its machine and version resource are as they should be."""
        data = open(path, "rb").read()
        nt = struct.unpack_from("<I", data, 60)[0]
        self.assertEqual((b"MZ", b"PE\0\0"), (data[:2], data[nt:nt + 4]))
        image_machine, count = struct.unpack_from("<HH", data, nt + 4)
        table = nt + 24 + struct.unpack_from("<H", data, nt + 20)[0]
        # VS_FIXEDFILEINFO starts with its signature; its versions follow as 16-bit halves, high first.
        fixed = data.index(struct.pack("<I", 0xFEEF04BD))
        file_ms, file_ls, product_ms, product_ls = struct.unpack_from("<4I", data, fixed + 8)
        dotted = [f"{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}.{ls & 0xFFFF}"
                  for ms, ls in ((file_ms, file_ls), (product_ms, product_ls))]
        self.assertEqual((machine, [VERSION + ".0"] * 2, file_type),
                         (image_machine, dotted, struct.unpack_from("<I", data, fixed + 36)[0]))
        # The string table: each key in UTF-16, padded with zeros to 32 bits, then its value.
        text = data[fixed:].decode("utf-16-le", "replace")
        strings = {key: match.group(1) for key in KEYS if (match := re.search(key + "\0+([^\0]*)\0", text))}
        self.assertEqual({"CompanyName": "Norvik", "ProductName": "Norvik Time Service", "FileVersion": VERSION,
                          "ProductVersion": VERSION, "OriginalFilename": name}, {key: strings.get(key) for key in KEYS[:5]})
        self.assertTrue(strings.get("FileDescription", "").startswith(description), strings)
        return [data[table + 40 * i:table + 40 * i + 8].rstrip(b"\0").decode() for i in range(count)]

    def test_every_shipped_file_carries_its_version_and_the_libraries_stay_code_free(self):
        libraries = sorted(n for n in os.listdir(os.path.join(BUILD, "config")) if re.fullmatch(r"res\d+\.dll", n))
        self.assertIn("res1033.dll", libraries)
        for name, description in [*EXECUTABLES.items(), *((n, "Norvik Time Service message texts, ") for n in libraries)]:
            with self.subTest(name=name):
                library = name.endswith(".dll")
                sections = self.check(name, os.path.join(BUILD, "config" if library else ".", name),
                                      0x14C if library else 0x8664, 2 if library else 1, description)
                self.assertEqual([".rsrc"] if library else sections, sections)  # a library: resources alone


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--version", required=True)
    arguments, rest = parser.parse_known_args()
    BUILD, VERSION = os.path.abspath(arguments.build), arguments.version
    unittest.main(argv=[sys.argv[0], "-v", *rest])
