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
NO_PAUSE = b"\0"


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


def address(tag: int, driver: int = 0) -> bytes:
    return struct.pack("<HH", driver, tag)


def name(text: str, driver: int = 0) -> bytes:
    return struct.pack("<H", driver) + text.encode("gb2312") + b"\0"


def counted(command: bytes, *items: bytes) -> bytes:
    return command + struct.pack("<H", len(items)) + b"".join(items)


LOOKUP, READ, ADVISE, POSITION, UNADVISE, ALARMS, LOGIN, PATH, CHANGE = (bytes([i]) for i in range(9))
EIGHT = b"".join(typed(kind, bytes(range(1, WIDTHS[kind] + 1))) for kind in (2, 3, 4, 5, 11, 16, 20)) + typed(8, b"t\0")
NUMBERS = b"".join(typed(3, struct.pack("<i", i)) for i in range(8))


def write(flags: int, names: str, *values: bytes) -> bytes:
    return bytes([flags]) + segment(names.encode("gb2312")) + b"".join(values)


TRUE, FALSE, OTHER, NONE = b"\x08", b"\0", b"\x06", b"\x07"  # the values of a write


# A step of a whole connection: as it should be, cut behind so many bytes, other bytes, nothing.
GOOD, NOTHING = b"\0", b"\3"
NO_COPY, COPY, CURRENT, HELLO, ALARM_CALLS, REQUESTS_END = 0, 1, 3, 4, 8, 16  # its flags


def cut(size: int) -> bytes:
    return b"\1" + struct.pack("<H", size)


def other(reply: bytes) -> bytes:
    return b"\2" + segment(reply)


def drivers(*tags: int) -> bytes:
    return bytes([len(tags), *tags])


def integer(number: int, size: int = 4) -> bytes:
    return b"\x01" + segment(number.to_bytes(size, "little", signed=True))


def real(number: float) -> bytes:
    return b"\x03" + segment(struct.pack("<d", number))


def text(utf8: bytes, long: bool = False) -> bytes:
    return (b"\x05" if long else b"\x04") + segment(utf8)


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
    # Pieces, the pause between two of them in tenths of a second, what comes.
    "stream": [
        UNCUT + NO_PAUSE + b"".join(change(tag, b"\x01" * WIDTHS[kind]) for tag, kind in enumerate((2, 3, 4, 5, 7))),
        b"\x07\x05" + change(5, b"text\0") * 9 + change(6, b"\x05") + system(3, ALARM) + change(0, b"\x02\x00"),
        CLOSED + NO_PAUSE + change(1, bytes(4)) + change(14, b"") + change(2, bytes(4)),
        b"\x05\x50" + system(16, b"\x00\x00\x01\x00" + b"t" * 70 + b"\0") + change(15, b"") + change(0, b"\x03"),
        BYTEWISE + NO_PAUSE + system(9, b"\x00\x00\x01\x00\x00") + change(9, b"\x01\x02\x03\x04", driver=7),
        b"\x7f\x0e" + change(5, b"x" * 150 + b"\0") * 15 + change(12, b"\x04\x03\x02\x01"),
        b"\x06\x51" + change(0, b"\x02\x00") + change(1, bytes(4)) + change(2, bytes(4)),
        b"\x85\x01" + change(2, bytes(4)) * 3,
        UNCUT + NO_PAUSE + change(5, b"x" * 5000 + b"\0") + change(0, b"\x07\x00"),
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
        # Behind a reply: a tail, an open end, too much, the end of the connection.
        BYTEWISE + POSITION + segment(b"L\x05\x00") + READ + segment(read_block(NUMBERS)),
        UNCUT + POSITION + segment(b"L\x05\x00" + b"." * 13) + READ + segment(read_block(NUMBERS)),
        UNCUT + POSITION + segment(b"L\x05\x00" + b"." * 14) + READ + segment(read_block(NUMBERS)),
        UNCUT + LOOKUP + segment(b"0" + bytes(8)) + LOOKUP + segment(b"L" + bytes(8)),
        UNCUT + LOOKUP + segment(b"L" + bytes(9)) + READ + segment(read_block(NUMBERS)),
        UNCUT + READ + segment(read_block(NUMBERS, more=1) + read_block(EIGHT)) + READ + segment(read_block(EIGHT)),
        b"\x7f" + READ + segment(read_block(bytes(4097), more=1) + read_block(b"")) + READ + segment(read_block(EIGHT)),
        UNCUT + ADVISE + segment(advise_block(bytes(4097))) + READ + segment(read_block(EIGHT)),
        UNCUT + b"\x81" + segment(read_block(EIGHT)) + READ + segment(read_block(EIGHT)) + UNADVISE + segment(b"d"),
    ],
    "connect": [
        UNCUT + b"\0" + segment(b"7") + segment(registered("演示".encode("gb2312"))),
        UNCUT + b"\1" + segment(b"7") + segment(registered(b"plant", b"", flag=3)),
        UNCUT + b"\1" + segment(redirect(bytes([192, 0, 2, 9]), 82)) + segment(b"7") + segment(registered(b"..")),
        UNCUT + b"\1" + segment(redirect(bytes([192, 0, 2, 9]), 3968, b"LaN")) * 9,
        UNCUT + b"\1" + segment(redirect(bytes(4), 0)) + segment(b"0"),
        CLOSED + b"\0" + segment(b"7") + segment(scramble(b"0")),
        b"\x50\0" + segment(b"7") + segment(registered(b"a/b" * 100)),
        b"\x02\1" + segment(redirect(bytes([192, 0, 2, 9]), 82)) + segment(b"7more") + segment(registered(b"P")),
        UNCUT + b"\0" + segment(b"7") + segment(registered(b"P")[:70]),
        UNCUT + b"\0" + segment(b"7") + segment(registered(b"P", b"t\0" + bytes(400))),
        UNCUT + b"\0" + segment(b"7") + segment(registered(b"P", b"t" * 600)),
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
    # Nothing or a mirror's names; host text.
    "host": [
        b"\0\0" + host
        for host in (
            b"192.0.2.1",
            b"plant.example:8080",
            b"a:b:81",
            b":80",
            b"",
            b"plant: +070000x",
            b"p2p(192.0.2.7):plant",
            b"P2P:name:with:colons",
            b"p2p(0):x",
            b"p2p(192.0.2.7))):n",
            b"p2pname",
            b"p2p:" + b"n" * 250,
            b"plant:3968",
            b"plant:99999999999999999999",
        )
    ]
    + [
        b"\1" + segment("演示".encode("gb2312")) + segment("p2p:锅炉".encode()) + "p2p:隧道".encode(),
        b"\1" + segment(b"demo") + segment("p2p:ö".encode()) + b"p2p:a\xff",
        b"\1" + segment(b"..") + segment(b"10.0.0.5:8000") + b"10.0.0.5:8001",
        b"\1" + segment(b"a\xff\xff") + segment("p2p:—·".encode()) + "p2p:―・".encode(),
    ],
    # Pieces; each write: flags (no right, a list, values too many, one too few), names, values.
    "writes": [
        UNCUT + write(0, "A", integer(-7)) + write(0, "A", real(2.5)) + write(0, "炉膛温度", text("文本".encode())),
        b"\x03" + write(2, "A,B,C,D,E", integer(1), TRUE, FALSE, real(-0.0), text(b"t")) + write(2, "A,B", OTHER, NONE),
        BYTEWISE + write(2, " A ,,B, ,C", integer(1 << 70, 10), integer(-1, 1), text(b""), NONE) + write(1, "A", TRUE),
        UNCUT + write(0, "A", text(b"0123456789", long=True)) + write(0, "A", text(b"01234567890", long=True)),
        UNCUT
        + write(2, "A,B,C", *(text(b"12345", long=True),) * 3)
        + write(18, "A,B", integer(1))
        + write(14, "", TRUE),
        UNCUT + write(2, ",".join(f"name{i}" for i in range(150)), *(integer(i) for i in range(150))),
        UNCUT
        + write(0, "n" * 764, TRUE)
        + write(0, "n" * 765, TRUE)
        + write(0, "A", text(b"a\0b"))
        + write(0, "B", text(b"\xff")),
    ],
    # Pieces, flags, the directories of the copy and of the server, open, register, login, and how the directory is
    # sent (whole, as the copy, behind the copy); alarms, texts, their steps; what is pushed.
    "session": [
        UNCUT + bytes([NO_COPY]) + drivers(3, 40, 0) + GOOD * 3 + b"\0" + GOOD,
        UNCUT
        + bytes([ALARM_CALLS])
        + drivers(9)
        + GOOD * 3
        + b"\0"
        + GOOD
        + b"\x05\x03"
        + GOOD * 3
        + segment(system(1, ALARM) + system(3, ALARM) + change(0, b"\1\0")),
        UNCUT + bytes([COPY]) + drivers(1, 2) + drivers(3) + GOOD * 3 + b"\1",
        UNCUT + bytes([COPY]) + drivers(1) + b"\x80" + segment(b"Z\0\1\0\2\0") + GOOD * 3 + b"\2",
        UNCUT + bytes([CURRENT | ALARM_CALLS]) + drivers(5, 6) + drivers() + GOOD * 3 + b"\1\1" + cut(9) + GOOD * 2,
        UNCUT + bytes([HELLO]) + b"\x80" + segment(b"") + GOOD * 3 + b"\0" + GOOD,
        UNCUT + bytes([NO_COPY]) + drivers(1) + GOOD + GOOD + other(b"0"),
        UNCUT + bytes([NO_COPY]) + drivers(1) + GOOD + cut(40),
        UNCUT + bytes([NO_COPY]) + drivers(1) + other(b"0"),
        UNCUT + bytes([NO_COPY]) + drivers(1, 1) + GOOD + GOOD + NOTHING,
        CLOSED + bytes([NO_COPY]) + drivers(1, 1) + GOOD * 3 + b"\0" + cut(45),
        CLOSED + bytes([NO_COPY]) + drivers(1, 1) + GOOD * 3 + b"\0" + GOOD,
        CLOSED + bytes([ALARM_CALLS]) + drivers(2) + GOOD * 3 + b"\0" + GOOD + b"\x05\x03" + GOOD * 3,
        CLOSED + bytes([CURRENT]) + drivers(5, 6) + drivers() + GOOD * 3,
        UNCUT + bytes([REQUESTS_END]) + drivers(2) + GOOD * 3 + b"\0" + GOOD + segment(change(0, b"\1\0")),
    ],
    # How it begins (nothing, open, open at a relay centre, register), size of pieces, what the client sends.
    "requests": [
        b"\0\x03"
        + b"9user\0password\0"
        + b"L"
        + name("炉膛温度")
        + name("A", 2)
        + counted(b"H", address(0), address(1, 2)),
        b"\0\x01" + b"L" + name("A") + name("B") + name("C", 1) + b"L" + name("D") + b"3n" + b"d" + bytes(range(8)),
        b"\0\x05" + counted(b"b", *(address(tag) + b"\0" for tag in range(9))) + counted(b"g"),
        b"\0\x07"
        + counted(b"g", *(address(kind) + typed(kind, b"1" * size) for kind, size in WIDTHS.items()))
        + counted(b"g", address(9) + typed(8, b"text\0"), address(0x2020, 0x2020) + typed(0, b""))
        + counted(b"g", address(0) + typed(0x2003, b"")),
        b"\0\x0b4RecData/drvinfo.dat\r\nLastTime:5F5E100\r\nSize:1F\r\ngzTime:1\r\ngzSize:2\r\nHello:Yes\r\n\r\n"
        + b"4a\r\n\r\n",
        b"\0\xff" + b"L" + name("A") + name("n" * 1022) + name("m" * 1023) + b"3",
        b"\0\xfe" + b"9" + b"u" * 4093 + b"\0\0" + b"9" + b"u" * 4094 + b"\0\0",
        b"\0\xfd"
        + counted(b"g", *(address(0) + typed(8, b"t" * 4000 + b"\0"),) * 4, address(0) + typed(8, b"t" * 400 + b"\0")),
        b"\x01\x02" + b"7" + scramble(bytes(range(16))) + b"9u\0\0",
        b"\x02\x04" + b"7" + scramble(bytes(22) + b"plant\0") + b"3",
        b"\x03\x06" + b"8" + scramble(bytes(16) + b"host\0\1\1") + b"ignored",
    ],
    "project": [
        (Path(__file__).parents[2] / "sim" / "demo.toml").read_bytes(),
        b'[[driver]]\nname="D"\nperiod_ms=5\n'
        + b"".join(
            b'[[driver.tag]]\nname="%s"\ntype="%s"\n' % (kind, kind)
            for kind in b"i1 i2 i4 i8 int ui1 ui2 ui4 uint r4 r8 bool str date empty".split()
        ),
        b'[[driver]]\nname="D"\n[[driver.tag]]\nname="T%05d"\ncount=9\nfirst=7\n'
        b'motion={kind="ramp",low=-1e308,high=1e308,step=1e308,bounce=true}\n'
        b'[[driver.tag]]\nname="W"\ntype="i1"\nmotion={kind="random",low=0,high=900,step=300}\n'
        b'[[driver.tag]]\nname="S"\ntype="i8"\nmotion={kind="sine",low=-9e18,high=9.3e18,cycle_s=0.5,phase=1e300}\n'
        b'[[driver.tag]]\nname="F"\ntype="str"\nmotion={kind="echo",of="S"}\n',
        b'[[driver]]\nname="D"\n[[driver.tag]]\nname="A"\ntype="date"\nvalue=2024-05-06T07:08:09\n'
        b'motion={kind="cycle",values=[2024-05-06,1.5,1899-12-30]}\n'
        b'[[alarm]]\ndriver="D"\ntag="A"\nhigh=1\nlow=-1\ndead_band=2\ntype="t"\ngroup="g"\nname="n"\nlevel=255\n'
        b'[alarm_lists]\ntexts=["a","b"]\ntags=["c"]\n',
        b'[project]\nname="p"\ntitle="t"\ntime=2024-05-06T07:08:09+01:00\nproject_path="/p/"\n'
        b'[server]\nblock_size=1\npieces=3\nrefuse="open"\nsystem_notifications=[2,4,22,255]\nsend_limit_kb=64\n'
        b'[[user]]\nname="u"\npassword="p"\nrights=0xFFFFFFFF\n'
        b'[[relay]]\nname="a"\ntarget="10.0.0.5:8000"\n[[relay]]\nname="b"\nredirect="10.0.0.5:81"\n[[relay]]\nname="c"\n'
        b'[[file]]\nname="f"\nhex="00 ff"\nrepeat=3\ngz=true\nappend=true\nuse_last=false\nwindows=true\n'
        b'[[file]]\nname="RecData/x"\ngb2312="\xe7\x82\x89"\nabsent=true\ntime=1970-01-01T00:00:00Z\n',
        b'[[driver]]\nname="\xc2\xb7"\n[[driver]]\nname="\xe2\x80\x94"\n[[driver]]\nname="\xc3\xb6"\n',
        b"x = [1, 2\n",
        b'[[driver]]\nname="D"\nnmae="E"\n',
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
