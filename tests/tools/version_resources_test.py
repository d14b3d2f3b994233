#!/usr/bin/env python3
"""The version resource of every shipped file of a Windows build, read with a PE reader of our own;
the message-text libraries stay 32-bit images of resources alone, which a 64-bit service can load.
Usage: version_resources_test.py --build <dir> --version x.y.z"""

import argparse, os, re, struct, sys, unittest

EXECUTABLES = {"NorvikTime.exe": "Norvik Time Service", "TroubleMonitor.exe": "Norvik trouble monitor",
               "SntpQuery.exe": "Norvik SNTP query"}
KEYS = ("CompanyName", "ProductName", "FileVersion", "OriginalFilename")  # the product's version mirrors the file's
X86, X64 = 0x14C, 0x8664
VFT_APP, VFT_DLL = 1, 2


def dotted(most, least):
    return f"{most >> 16}.{most & 0xFFFF}.{least >> 16}.{least & 0xFFFF}"


def read_image(data):
    nt = struct.unpack_from("<I", data, 60)[0]
    machine, section_count = struct.unpack_from("<HH", data, nt + 4)
    table = nt + 24 + struct.unpack_from("<H", data, nt + 20)[0]
    fixed = data.index(struct.pack("<I", 0xFEEF04BD))  # VS_FIXEDFILEINFO's signature
    file_ms, file_ls = struct.unpack_from("<2I", data, fixed + 8)
    facts = {"machine": machine, "fixed file version": dotted(file_ms, file_ls),
             "file type": struct.unpack_from("<I", data, fixed + 36)[0],
             "sections": [data[table + 40 * i:table + 40 * i + 8].rstrip(b"\0").decode() for i in range(section_count)]}
    # The string table: each key in UTF-16, padded with zeros to 32 bits, then its value.
    text = data[fixed:].decode("utf-16-le", "replace")
    for key in (*KEYS, "FileDescription"):
        match = re.search(key + "\0+([^\0]*)\0", text)
        facts[key] = match.group(1) if match else None
    return facts


class VersionResourceTest(unittest.TestCase):
    maxDiff = None  # a failure shows each fact that differs, by name

    def test_every_shipped_file_carries_its_version(self):
        libraries = sorted(n for n in os.listdir(os.path.join(BUILD, "config")) if re.fullmatch(r"res\d+\.dll", n))
        shipped = [(name, ".", description) for name, description in EXECUTABLES.items()]
        shipped += [(name, "config", "Norvik Time Service message texts, ") for name in libraries]
        for name, folder, description in shipped:
            with self.subTest(name=name):
                library = name.endswith(".dll")
                with open(os.path.join(BUILD, folder, name), "rb") as image:
                    facts = read_image(image.read())
                self.assertTrue(str(facts.pop("FileDescription")).startswith(description), description)
                if not library:
                    facts.pop("sections")
                expected = {"machine": X86 if library else X64, "fixed file version": VERSION + ".0",
                            "file type": VFT_DLL if library else VFT_APP, "CompanyName": "Norvik",
                            "ProductName": "Norvik Time Service", "FileVersion": VERSION, "OriginalFilename": name}
                if library:
                    expected["sections"] = [".rsrc"]
                self.assertEqual(expected, facts)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True)
    parser.add_argument("--version", required=True)
    arguments, rest = parser.parse_known_args()
    BUILD, VERSION = os.path.abspath(arguments.build), arguments.version
    unittest.main(argv=[sys.argv[0], "-v", *rest])
