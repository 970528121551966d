"""Writes the seed inputs of the fuzz targets: real encodings, whole and cut, a few bytes each.

python tests/fuzz/make_corpus.py      writes tests/fuzz/corpus/<target>/seed*; files of other names stay
"""

from __future__ import annotations

import struct
from pathlib import Path

CORPUS = Path(__file__).parent / "corpus"
ALARM = struct.pack("<IIHHHBBdd", 1700000000, 0, 1, 2, 3, 4, 5, 6.5, -7.5)
WIDTHS = {2: 2, 3: 4, 4: 4, 5: 8, 7: 8, 11: 1, 16: 1, 17: 1, 18: 2, 19: 4, 20: 8, 22: 4, 23: 4}
UNCUT, BYTEWISE, CLOSED = b"\0", b"\x01", b"\x80"  # how the scripted server's bytes arrive, and how they end


def typed(kind: int, payload: bytes) -> bytes:
    return struct.pack("<H", kind) + payload


def system(kind: int, rest: bytes) -> bytes:
    return b"\xff\xff" + bytes([kind]) + rest


def change(tag: int, payload: bytes, driver: int = 0) -> bytes:
    return struct.pack("<HH", driver, tag) + payload


def segment(data: bytes) -> bytes:
    return struct.pack("<H", len(data)) + data


def scramble(plain: bytes) -> bytes:
    out = bytearray()
    for start in range(0, len(plain), 3):
        group, u = plain[start : start + 3], 0xA7 + start & 0xFF
        out += bytes([u, group[0] + u & 0xFF])
        out += bytes([group[1] - u & 0xFF]) if len(group) > 1 else b""
        out += bytes([group[2] ^ u]) if len(group) > 2 else b""
    return bytes(out)


def registered(project: bytes, title: bytes = b"title", flag: int = 16) -> bytes:
    record = bytearray(range(58))
    record[21] = flag
    return scramble(b"8" + bytes(record) + project + b"\0" + title + b"\0")


def redirect(ip: bytes, port: int, word: bytes = b"lan") -> bytes:
    return b"7" + word + ip + struct.pack(">H", port)


def read_block(values: bytes, more: int = 0) -> bytes:
    return b"H" + struct.pack("<BH", more, len(values)) + values


def advise_block(values: bytes) -> bytes:
    return b"b" + struct.pack("<H", len(values)) + values


LOOKUP, READ, ADVISE, POSITION, UNADVISE, ALARMS, LOGIN, PATH, CHANGE = (bytes([i]) for i in range(9))
EIGHT = b"".join(typed(kind, bytes(range(1, WIDTHS[kind] + 1))) for kind in (2, 3, 4, 5, 11, 16, 20)) + typed(8, b"t\0")
NUMBERS = b"".join(typed(3, struct.pack("<i", i)) for i in range(8))

SEEDS: dict[str, list[bytes]] = {
    "variant": [
        b"".join(typed(kind, b"\x01\x02") for kind in (2, 18)),
        b"".join(typed(kind, b"\x00\x00\x80\x3f") for kind in (3, 4, 19, 22, 23)),
        b"".join(typed(kind, struct.pack("<d", 45000.25)) for kind in (5, 7, 20)),
        b"".join(typed(kind, b"\xff") for kind in (11, 16, 17)),
        typed(8, b"#FF8000\0") + typed(8, b"2020-5-6 1:2:3\0") + typed(8, b"no end"),
        typed(8192, b"\x02\x00") + typed(8192, b"\xff\xff") * 3,
        typed(5, struct.pack("<d", float("nan"))) + typed(7, struct.pack("<d", 1e300)) + typed(21, b""),
    ],
    "notify": [
        system(1, ALARM) + system(3, ALARM) + system(255, b""),
        b"".join(system(kind, bytes(4)) for kind in (2, 5, 7)) + system(4, bytes(40)) + system(6, bytes(17)),
        b"".join(system(kind, b"\x03\x00\x09\x00" + bytes(8)) for kind in (10, 11, 12, 13)),
        system(16, b"\x00\x00\x01\x00text\0") + system(9, b"\x00\x00\x01\x00\x00") + system(8, bytes(2)),
        system(21, b"\x00\x00\x01\x00no end"),
        system(22, b"\x09\x00\x01\x00\x00"),
    ],
    "stream": [
        UNCUT + b"".join(change(tag, b"\x01" * WIDTHS[kind]) for tag, kind in enumerate((2, 3, 4, 5, 7))),
        b"\x07" + change(5, b"text\0") * 9 + change(6, b"\x05") + system(3, ALARM) + change(0, b"\x02\x00"),
        CLOSED + change(1, bytes(4)) + change(14, b"") + change(2, bytes(4)),
        b"\x05" + system(16, b"\x00\x00\x01\x00" + b"t" * 70 + b"\0") + change(15, b"") + change(0, b"\x03"),
        BYTEWISE + system(9, b"\x00\x00\x01\x00\x00") + change(9, b"\x01\x02\x03\x04", driver=7),
        b"\x7f" + change(5, b"x" * 150 + b"\0") * 15 + change(12, b"\x04\x03\x02\x01"),
    ],
    "replies": [
        UNCUT
        + LOOKUP
        + segment(b"L" + bytes([3, 0, 0, 0, 0xFF, 0xFF, 0, 0]))
        + READ
        + segment(read_block(EIGHT))
        + READ
        + segment(read_block(NUMBERS[:18], more=1) + read_block(NUMBERS[18:])),
        b"\x03"
        + ADVISE
        + segment(advise_block(EIGHT[:11]) + advise_block(EIGHT[11:]))
        + CHANGE
        + segment(change(8, b"\x07\x00"))
        + CHANGE
        + segment(change(15, b"new\0") + b"more"),
        UNCUT
        + POSITION
        + segment(b"L\x05\x00\x00\x00")
        + UNADVISE
        + segment(b"d")
        + ALARMS
        + segment(b"n\x02\x00" + ALARM * 2)
        + LOGIN
        + segment(b"9\xaa\xbb\xcc\xdd\x08\x00\x00\x00")
        + PATH
        + segment(b"3/prj/\0/event/\0/alarm/\0/hist/\0"),
        CLOSED + READ + segment(b"0") + READ + segment(read_block(NUMBERS, more=1)) + LOGIN + segment(b"0"),
        BYTEWISE + READ + segment(read_block(b"", more=1) * 9) + ADVISE + segment(advise_block(NUMBERS[:20])),
        UNCUT
        + CHANGE
        + segment(system(22, b"\0\0\x01\0\0"))
        + ALARMS
        + segment(b"n\xff\xff" + ALARM)
        + LOGIN
        + b"\0\0",
    ],
    "connect": [
        UNCUT + b"\0" + segment(b"7") + segment(registered("演示".encode("gb2312"))),
        UNCUT + b"\1" + segment(b"7") + segment(registered(b"plant", b"", flag=3)),
        UNCUT + b"\1" + segment(redirect(bytes([192, 0, 2, 9]), 82)) + segment(b"7") + segment(registered(b"..")),
        UNCUT + b"\1" + segment(redirect(bytes([192, 0, 2, 9]), 3968, b"LaN")) * 9,
        UNCUT + b"\1" + segment(redirect(bytes(4), 0)) + segment(b"0"),
        CLOSED + b"\0" + segment(b"7") + segment(scramble(b"0")),
        b"\x50\0" + segment(b"7") + segment(registered(b"a/b" * 100)),
    ],
    "download": [
        b"\xfeSize:5\r\nFileTime:60000000\r\n\r\nhello",
        b"\xffUseLast:Yes\r\n\r\n",
        b"\xffExist:no\r\n\r\n",
        b"\x10Hello:Yes\r\nSize:24000\r\n\r\n" + b"x" * 3000,
        b"\xffGZ:Yes\r\nAppend:Yes\r\nSize:FFFFFFFFFFFFFFFF\r\nFileName:a:b\r\n\r\nabc",
        b"\xfe" + b"N" * 70 + b":1\r\n\r\n",
        b"\xffAppend:yes\r\nSize:3\r\n\r\nnew and more",
        b"\x03Size:4\n\n",
    ],
    "directory": [
        b"A\0\0\0\x05\0" + "锅炉".encode("gb2312") + b"\0\x01\0\x0a\0" + b"A\0\x02\0\x03\0",
        b"\0\0\0\0\0",
        b"A\0\0\0\x05\0no end",
        b"A\0\0",
    ],
    "lists": [
        "高限报警\r\n低限报警\r\n\r\nA\n".encode("gb2312"),
        b"x" * 300 + b"\r\n" + b"y" * 254 + b"\r\n" + b"z" * 255 + b"\r\nlast",
        b"a\0b\nc\xff\n\xa1\n\r\r\n",
        b"",
    ],
    "text": [
        "炉膛温度,流量, A ,,B".encode(),
        "炉膛温度".encode("gb2312") + b"\xff\xa1",
        b"A\0B,C",
        b",,,",
        "€\u2015\u00b7".encode(),
        "炉,膛".encode("gb2312"),
    ],
    "cipher": [b"", b"8", bytes(range(16)), bytes(60), bytes(range(61))],
}


def main() -> None:
    for target, seeds in SEEDS.items():
        folder = CORPUS / target
        folder.mkdir(parents=True, exist_ok=True)
        for number, seed in enumerate(seeds):
            (folder / f"seed{number}").write_bytes(seed)


if __name__ == "__main__":
    main()
