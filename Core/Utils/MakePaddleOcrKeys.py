"""Writes PaddleOcrKeys.inc, the table of the built-in text dictionary, from a list of GBK byte strings.

Usage: python3 MakePaddleOcrKeys.py LIST > PaddleOcrKeys.inc
LIST holds one entry per line, of one or two GBK bytes, after a first line "blank", which is left out.
"""

import pathlib
import sys

entries = pathlib.Path(sys.argv[1]).read_bytes().splitlines()
assert entries[0] == b"blank" and all(1 <= len(entry) <= 2 for entry in entries[1:])
codes = [f"0x{entry.hex()}" for entry in entries[1:]]
print("// GBK codes of the PaddleOCR key list (see NOTICE); written by MakePaddleOcrKeys.py.")
for start in range(0, len(codes), 12):
    print("    " + ", ".join(codes[start : start + 12]) + ",")
