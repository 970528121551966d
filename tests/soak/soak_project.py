"""The project that the simulator of a soak serves; what its tags do is known, so each change has one right value."""

from __future__ import annotations

PERIOD_MS = 20
RAMPS = 40
TEXTS = ["", "a" * 5, "泵" * 300, "b" * 3000, "cd" * 700, "e"]
LIMIT = 100.0
PLANT, OTHER = "Plant", "Own"
RAMP_NAMES = [f"R{number:02d}" for number in range(RAMPS)]
READ_NAMES = [f"S{number:03d}" for number in range(600)]  # ramps in step with the others, never subscribed


def project_file(clients: int) -> str:
    """The simulator's project: a driver that moves by itself, and one whose tags are each written by one client."""
    ramp = 'type = "i4"\nmotion = { kind = "ramp", low = 0, high = 2000000000, step = 1 }\n'
    texts = ", ".join(f'"{text}"' for text in TEXTS)
    parts = [
        '[project]\nname = "soak"\n[[user]]\nname = "operator"\npassword = "secret"\nrights = 8\n',
        f'[[driver]]\nname = "{PLANT}"\nperiod_ms = {PERIOD_MS}\n',
        f'[[driver.tag]]\nname = "R%02d"\ncount = {RAMPS}\n{ramp}',
        f'[[driver.tag]]\nname = "S%03d"\ncount = {len(READ_NAMES)}\n{ramp}',
        f'[[driver.tag]]\nname = "Text"\ntype = "str"\nmotion = {{ kind = "cycle", values = [{texts}] }}\n',
        f'[[driver]]\nname = "{OTHER}"\n',
    ]
    for client in range(clients):
        for name, kind in (("T", "str"), ("N", "i4"), ("A", "r8")):
            parts.append(f'[[driver.tag]]\nname = "{name}{client}"\ntype = "{kind}"\n')
    for client in range(clients):
        parts.append(
            f'[[alarm]]\ndriver = "{OTHER}"\ntag = "A{client}"\nhigh = {LIMIT}\ntype = "高"\ngroup = "G{client}"\n'
        )
    return "\n".join(parts)
