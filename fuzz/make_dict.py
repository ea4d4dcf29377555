#!/usr/bin/env python3
"""Writes tags.dict: the tags of key parameters as they stand on the wire. --check compares it."""
import pathlib
import re
import sys

here = pathlib.Path(__file__).parent
header = (here / "../platform/keymaster/include/hardware/keymaster_defs.h").read_text()
types = {
    name: int(value)
    for name, value in re.findall(r"(KM_\w+) = (?:\(int\)\()?(\d+)u? << 28", header)
}
lines = ["# Written by make_dict.py from the tags in hardware/keymaster_defs.h."]
for name, type_name, number in re.findall(r"KM_TAG_(\w+) = (KM_\w+) \| (\d+)", header):
    tag = (types[type_name] << 28 | int(number)).to_bytes(4, "little")
    lines.append(name.lower() + '="' + "".join(f"\\x{byte:02x}" for byte in tag) + '"')
text = "\n".join(lines) + "\n"
if sys.argv[1:] != ["--check"]:
    (here / "tags.dict").write_text(text)
elif (here / "tags.dict").read_text() != text:
    sys.exit("fuzz/tags.dict is not of the present header: run fuzz/make_dict.py")
