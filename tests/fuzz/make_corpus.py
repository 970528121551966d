"""Writes the seed inputs of the fuzz targets: real encodings, whole and cut, a few bytes each.

python tests/fuzz/make_corpus.py      writes tests/fuzz/corpus/<target>/
"""

from __future__ import annotations

import struct
from pathlib import Path

CORPUS = Path(__file__).parent / "corpus"
ALARM = struct.pack("<IIHHHBBdd", 1700000000, 0, 1, 2, 3, 4, 5, 6.5, -7.5)


def typed(kind: int, payload: bytes) -> bytes:
    return struct.pack("<H", kind) + payload


def system(kind: int, rest: bytes) -> bytes:
    return b"\xff\xff" + bytes([kind]) + rest


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
    "download": [
        b"Size:5\r\nFileTime:60000000\r\n\r\nhello",
        b"UseLast:Yes\r\n\r\n",
        b"Exist:no\r\n\r\n",
        b"\xffHello:Yes\r\nSize:24000\r\n\r\n" + b"x" * 3000,
        b"GZ:Yes\r\nAppend:Yes\r\nSize:FFFFFFFFFFFFFFFF\r\nFileName:a:b\r\n\r\nabc",
        b"N" * 70 + b":1\r\n\r\n",
    ],
    "text": [
        "炉膛温度,流量, A ,,B".encode(),
        "炉膛温度".encode("gb2312") + b"\xff\xa1",
        b"A\0\0\0\x05\0B\0\x01\0\x0a\0",
        b",,,",
        "€".encode(),
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
