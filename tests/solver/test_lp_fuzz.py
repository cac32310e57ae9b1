"""Damaged LP files end in an error with its line or in a model, never in a crash, a hang or a half-filled model."""

import os
import random

from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from solver.model_file import snapshot
from solver.store import CONSTR, GENCONSTR, QCONSTR, VAR, Store, StoreError
from solver.test_lp import DAMAGED, OTHERWISE, VALID
from solver.test_mps_fuzz import read_in_child, written

SOUND = {title: text for table in (VALID, OTHERWISE) for title, (text, _) in table.items()}
WHOLE = """\\Problem name: all
Maximize
 obj: 3 x - y[1,2] + 7 + [ 2 x ^2 + 3 x * z ] / 2
Subject To
 c: -5 <= x + 2 y[1,2]
  - z <= 5
 q: x + [ y[1,2] ^2 - z*z ] >= 1e-3
 i: b = 1 -> -1 <= x - z <= 2
Bounds
 -inf <= x <= 5
 z free
General
 x
Semi-Continuous
 y[1,2]
SOS
 s: S1:: x:1 z:-2.5
 S2:: z:3 y[1,2]:1
 x:2
End
"""


def test_truncated_at_every_byte(tmp_path):
    whole = WHOLE.encode()
    assert read_in_child(written(tmp_path, [whole[:i] for i in range(len(whole) + 1)], "lp")) == 2


def test_bytes_changed_anywhere(tmp_path):
    rng = random.Random(21)
    seeds = [WHOLE, *SOUND.values()]
    contents = []
    for _ in range(4000):
        content = bytearray(rng.choice(seeds).encode())
        for _ in range(rng.randint(1, 4)):
            content[rng.randrange(len(content))] = rng.choice(b"\0\n\r\t +-*/^<>=:[]\\x09.\xff")
        contents.append(bytes(content))
    assert 0 < read_in_child(written(tmp_path, contents, "lp")) < len(contents)


def test_noise_and_endless_lines(tmp_path):
    rng = random.Random(22)
    head = b"min\n o: "
    much = 20_000_000
    contents = [
        rng.randbytes(3_000_000),
        b"\n" * 3_000_000,
        head + b"+ " * (much // 2) + b"x\nend\n",
        head + b"x" * much + b"\nend\n",
        head + b"1" * much + b" x\nend\n",
        head + b"x" + b"[" * 1_000_000 + b"\nend\n",
        head + b"[" * 1_000_000 + b"\nend\n",
        b"min\n o:\nst\n" + b"c: " * 1_000_000 + b"\nend\n",
        b"\\" * much,
    ]
    assert read_in_child(written(tmp_path, contents, "lp")) == 3  # many signs, and two long names


WORDS = st.one_of(
    st.sampled_from(["min", "max", "st", "bounds", "general", "binary", "semi", "end", "SOS", "free", "inf", "nan"]),
    st.sampled_from([*"xyz32+-*/^[]<=\\", "c:", "q:", "S1::", "x:", "-1.5", "1e30", "^2", "<=", ">=", "->"]),
    st.text(max_size=4),
)
LINES = st.lists(WORDS, max_size=6).map(" ".join)


@given(st.lists(LINES, max_size=8), st.sampled_from(sorted(SOUND)), st.data())
@settings(max_examples=300, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
def test_lines_put_anywhere(tmp_path, lines, title, data):
    sound = SOUND[title].splitlines()
    for line in lines:
        sound.insert(data.draw(st.integers(0, len(sound))), line)
    path = tmp_path / "m.lp"
    path.write_bytes("\n".join(sound).encode(errors="surrogatepass"))
    store = Store("")
    said = None
    try:
        store.call("TRVreadmodel", os.fsencode(path))
    except StoreError as error:
        said = str(error)
    found = snapshot(store)
    assert said is None or (f"{path}, line " in said and found == snapshot(Store("")))
    for kind, key in ((VAR, "vars"), (CONSTR, "rows"), (QCONSTR, "qrows"), (GENCONSTR, "gens")):
        called = [gen[0] for gen in found[key]] if kind == GENCONSTR else found[key]
        assert len(called) == len(set(called)) == store.idcount(kind)


def test_every_damage_leaves_the_model_as_it_was(tmp_path):
    contents = [text if isinstance(text, bytes) else text.encode() for text, *_ in DAMAGED.values()]
    assert read_in_child(written(tmp_path, contents, "lp")) == 0
