#!/usr/bin/env python3
"""Reads the version resource of every shipped file of a Windows build with a reader of its own (not
the writing tool's): fixed and string versions from the project's, company, product, description and
original file name; the resource libraries stay 32-bit images of resources alone, which a 64-bit
service can load. Usage: version_resources_test.py --build <dir> --version x.y.z"""

import argparse, os, re, struct, sys, unittest

EXECUTABLES = {"NorvikTime.exe": "Norvik Time Service", "TroubleMonitor.exe": "Norvik trouble monitor",
               "SntpQuery.exe": "Norvik SNTP query"}
KEYS = ("CompanyName", "ProductName", "FileVersion", "ProductVersion", "OriginalFilename", "FileDescription")
X86, X64 = 0x14C, 0x8664
VFT_APP, VFT_DLL = 1, 2


def dotted(most, least):
    """A version held as 16-bit halves, high first."""
    return f"{most >> 16}.{most & 0xFFFF}.{least >> 16}.{least & 0xFFFF}"


def read_image(data):
    """What the test checks of a PE image, by name."""
    nt = struct.unpack_from("<I", data, 60)[0]
    machine, section_count = struct.unpack_from("<HH", data, nt + 4)
    table = nt + 24 + struct.unpack_from("<H", data, nt + 20)[0]
    fixed = data.index(struct.pack("<I", 0xFEEF04BD))  # VS_FIXEDFILEINFO starts with its signature
    file_ms, file_ls, product_ms, product_ls = struct.unpack_from("<4I", data, fixed + 8)
    facts = {"DOS signature": data[:2], "PE signature": data[nt:nt + 4], "machine": machine,
             "fixed file version": dotted(file_ms, file_ls), "fixed product version": dotted(product_ms, product_ls),
             "file type": struct.unpack_from("<I", data, fixed + 36)[0],
             "sections": [data[table + 40 * i:table + 40 * i + 8].rstrip(b"\0").decode() for i in range(section_count)]}
    # The string table: each key in UTF-16, padded with zeros to 32 bits, then its value.
    text = data[fixed:].decode("utf-16-le", "replace")
    for key in KEYS:
        match = re.search(key + "\0+([^\0]*)\0", text)
        facts[key] = match.group(1) if match else None
    return facts


class VersionResourceTest(unittest.TestCase):
    maxDiff = None  # a failure shows each fact that differs, by name
    def check(self, path, expected, description):
        with open(path, "rb") as image:
            facts = read_image(image.read())
        self.assertTrue(str(facts.pop("FileDescription")).startswith(description), f"description: {description}...")
        if expected["sections"] is None:
            facts.pop("sections")
            expected.pop("sections")
        self.assertEqual(expected, facts)

    def test_every_shipped_file_carries_its_version(self):
        libraries = sorted(n for n in os.listdir(os.path.join(BUILD, "config")) if re.fullmatch(r"res\d+\.dll", n))
        self.assertIn("res1033.dll", libraries)
        shipped = [(name, ".", description) for name, description in EXECUTABLES.items()]
        shipped += [(name, "config", "Norvik Time Service message texts, ") for name in libraries]
        for name, folder, description in shipped:
            with self.subTest(name=name):
                library = name.endswith(".dll")
                # A library is a 32-bit image of resources alone, which a 64-bit process can load.
                expected = {"DOS signature": b"MZ", "PE signature": b"PE\0\0", "machine": X86 if library else X64,
                            "fixed file version": VERSION + ".0", "fixed product version": VERSION + ".0",
                            "file type": VFT_DLL if library else VFT_APP, "sections": [".rsrc"] if library else None,
                            "CompanyName": "Norvik", "ProductName": "Norvik Time Service", "FileVersion": VERSION,
                            "ProductVersion": VERSION, "OriginalFilename": name}
                self.check(os.path.join(BUILD, folder, name), expected, description)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--version", required=True)
    arguments, rest = parser.parse_known_args()
    BUILD, VERSION = os.path.abspath(arguments.build), arguments.version
    unittest.main(argv=[sys.argv[0], "-v", *rest])
