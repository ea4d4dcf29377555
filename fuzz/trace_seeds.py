#!/usr/bin/env python3
"""Makes seeds of what TEE_TRACE=full shows of a process.

  fuzz/trace_seeds.py FOLDER TRACE...

FOLDER/TARGET/ gets them. All commands of a trace that is called NUMBER-REQUEST are one request to
the hostile TA, else each is one. The header of each target says how it reads an input.
"""
import hashlib
import pathlib
import re
import sys

# By the name in the trace: the parameter with a list of key parameters, the one whose reply has a
# target of its own, and the request that consists of this command.
COMMANDS = {
    "GenerateKey": (0, (3, "characteristics"), "GenerateEc"),
    "GetKeyCharacteristics": (1, (2, "characteristics"), "GetKeyCharacteristics"),
    "ImportKey": (0, (3, "characteristics"), "ImportRaw"),
    "ExportKey": (1, (2, "public_key"), "ExportRsa"),
    "AttestKey": (1, (2, "attest_chain"), "AttestKey"),
    "Upgrade": (1, None, "UpgradeKey"),
    "Begin": (1, (2, "param_set"), "Begin"),
    "Update": (0, None, "Update"),
    "Finish": (0, None, "FinishNew"),
    "Abort": (None, None, "Abort"),
    "DeleteKey": (None, None, "Deletekey"),
    "VerifyAuthorization": (0, (2, "param_set"), "VerifyAuthorization"),
    "EarlyBootEnded": (None, None, "EarlyBootEnded"),
    "DeviceLocked": (None, None, "DeviceLocked"),
    "GetHmacSharingParameters": (None, None, "GetHmacSharingParameters"),
    "ComputeSharedHmac": (None, None, "ComputeSharedHmac"),
}
TYPES = ["NONE", "VALUE_INPUT", "VALUE_OUTPUT", "VALUE_INOUT", "", "MEMREF_TEMP_INPUT",
         "MEMREF_TEMP_OUTPUT", "MEMREF_TEMP_INOUT"]
AUTH_TOKEN = 0x900003EA
LARGEST_CAPACITY = 8192
FAILURE = 0xE0  # a byte that says so
ROOT = pathlib.Path(__file__).parent.parent
REQUESTS = [name for name, _ in re.findall(r'\{"(\w+)",\s*"(\w+)",',
                                           (ROOT / "tests/requests/requests.cpp").read_text())]


def le(value, size):
    return value.to_bytes(size, "little")


def number(data, at, size=4):
    return int.from_bytes(data[at:at + size], "little")


def sized(data):
    return le(min(len(data), 0xFFFF), 2) + data[:0xFFFF]


class Process:
    def __init__(self, folder, request):
        self.folder, self.request = folder, request
        self.handle, self.replies, self.ta, self.hostile = None, [], b"", b""

    def save(self, target, data):
        if data:
            (self.folder / target).mkdir(parents=True, exist_ok=True)
            (self.folder / target / hashlib.sha1(data).hexdigest()).write_bytes(data)

    def token(self, token):
        """The signed part, for the operation and the time that the target will have."""
        challenge = b"\xff" * 8 if token[1:9] == self.handle else token[1:9]
        return token[:1] + challenge + token[9:29] + (999999).to_bytes(8, "big")

    def params(self, wire):
        """Two lists and their bytes, as one list of the form that targets read."""
        first = number(wire, 0)
        second = number(wire, 4 + 16 * first)
        area, out = 8 + 16 * (first + second), b""
        for i in range(first + second):
            at = (4 if i < first else 8) + 16 * i
            tag = number(wire, at)
            if tag >> 28 in (8, 9):
                start = area + number(wire, at + 8)
                value = wire[start:start + number(wire, at + 12)]
                out += le(tag, 4) + sized(self.token(value) if tag == AUTH_TOKEN else value)
            else:
                out += le(tag, 4) + wire[at + 8:at + 16]
        return out + le(0, 4)

    def source(self, name, index, data):
        if index == COMMANDS[name][0] and data:
            self.save("round_trip", self.params(data))
            return b"\x04" + self.params(data)
        if name == "VerifyAuthorization" and index == 1:
            return b"\x05" + data[:8] + sized(self.token(data[8:]))
        if data and data[:8] == self.handle:
            return b"\x03\x00"
        if data and data in self.replies:
            return b"\x02" + bytes([self.replies.index(data)])
        return b"\x00" + sized(data)

    def note(self, command, name, slots, result):
        """slots: of each parameter its type, its text, and what went in and came out."""
        listed, reply, request = COMMANDS[name]
        self.ta += bytes([command, 1]) + le(sum(s[0] << 4 * i for i, s in enumerate(slots)), 4)
        failed = result != 0
        answer = bytes([0, FAILURE if failed else 0]) + (le(result, 4) if failed else b"")
        for i, (kind, text, data, out) in enumerate(slots):
            if kind >= 6:
                self.ta += le(min(int(re.match(r"\d+", text)[0]), LARGEST_CAPACITY), 2)
                answer += b"\x00" + sized(out)
            if kind in (5, 7):
                self.ta += self.source(name, i, data)
            elif kind in (1, 2, 3):
                values = [int(v, 16) for v in re.findall(r"0x[0-9a-f]+", text)]
                self.ta += b"".join(le(v, 4) for v in values[:2])
                if kind != 1:
                    answer += b"".join(le(v, 4) for v in values[-2:])
                    self.handle = answer[-8:] if not failed else self.handle
        if self.request is None:
            self.save("hostile_ta", self.hostile)
            self.hostile = b""
        first = bytes([REQUESTS.index(self.request or request), 0])
        self.hostile = (self.hostile or first) + answer
        if not failed:
            self.replies += [out for kind, _, _, out in slots if kind >= 6]
            if reply is not None:
                self.save(reply[1], slots[reply[0]][3])

    def note_record(self, slots, result):
        """The error record belongs to the failure before it."""
        self.hostile += bytes([FAILURE]) + le(result, 4) if result else b"\x00"
        self.hostile += b"\x00" + sized(slots[0][3])


def read(folder, path):
    process = Process(folder, path.name.partition("-")[2] or None)
    data = [b""] * 4
    pending = None  # a command whose outputs follow

    def finish():
        if pending is not None and pending[1] != "Configure":
            command, name, slots, result = pending
            slots = [(*slot[:3], out) for slot, out in zip(slots, outs)]
            if name in COMMANDS:
                process.note(command, name, slots, result)
            else:
                process.note_record(slots, result)

    outs = [b""] * 4
    for line in path.read_text(errors="replace").splitlines():
        buffer = re.match(r"tee:   params\[(\d)\] (in|out) [0-9a-f]+: ([0-9a-f]+)$", line)
        done = re.match(r"tee: command (\d+) (\w+) \((.*)\) result 0x([0-9a-f]+)", line)
        if buffer:
            into = data if buffer[2] == "in" else outs
            into[int(buffer[1])] += bytes.fromhex(buffer[3])
        elif done:
            texts = [text.partition(" ") for text in done[3].split(", ")]
            slots = [(TYPES.index(kind), rest, data[i]) for i, (kind, _, rest) in enumerate(texts)]
            pending, outs = (int(done[1]), done[2], slots, int(done[4], 16)), [b""] * 4
        elif line.startswith("tee: command"):
            finish()
            pending, data = None, [b""] * 4
    finish()
    process.save("ta_commands", process.ta)
    process.save("hostile_ta", process.hostile)


for trace in sys.argv[2:]:
    read(pathlib.Path(sys.argv[1]), pathlib.Path(trace))
