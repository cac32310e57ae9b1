"""Damaged files of every kind end in an error or in a model, never in a crash, a hang or a half-filled model.

Each file is read in a child process that reads many of them, so that a crash is an exit code with the file's number.
"""

import gzip
import os
import random
import subprocess
import sys
from pathlib import Path

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from solver.model_file import mps, read, snapshot
from solver.store import CONSTR, VAR, Store, StoreError
from solver.test_mps import DAMAGED, OTHERWISE, VALID
from solver.test_mps_files import FIXED

CHILD = """
import sys
from solver.model_file import read, snapshot
from solver.store import Store, StoreError, VAR
read_well = 0
for path in sys.argv[1:]:
    print(path, flush=True)
    store = Store("")
    try:
        store.call("TRVreadmodel", path.encode())
        snapshot(store)
        read_well += 1
    except StoreError as error:
        assert str(error) and store.idcount(VAR) == 0, str(error)
print(read_well)
"""


def read_in_child(paths):
    """How many of them were models; what the child printed last when it fell."""
    places = os.pathsep.join(place for place in sys.path if place)
    done = subprocess.run(
        [sys.executable, "-c", CHILD, *map(str, paths)],
        env={**os.environ, "PYTHONPATH": places},
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert done.returncode == 0, done.stdout[-300:] + done.stderr
    return int(done.stdout.split()[-1])


GENERAL = mps(end="SOS\n S1 s\n x 1\n y 2.5\n S2 t\n y -1\nINDICATORS\n IF c y 0\nENDATA\n")
SEEDS = [GENERAL] + [text for text, *_ in VALID.values()] + [text for text, _ in OTHERWISE.values()] + [FIXED]


def written(folder, contents, ending="mps"):
    paths = [Path(folder, f"{i}.{ending}") for i in range(len(contents))]
    for path, content in zip(paths, contents, strict=True):
        path.write_bytes(content)
    return paths


def test_truncated_at_every_byte(tmp_path):
    whole = FIXED.encode()
    last = len(whole) - len("\n")
    assert read_in_child(written(tmp_path, [whole[:i] for i in range(len(whole))])) == len(whole) - last
    text = mps(ranges=" g c 3\n", bounds=" SC b x 5\n LI b y 2\n").encode()
    assert read_in_child(written(tmp_path, [text[:i] for i in range(len(text))])) == 1


def test_bytes_changed_anywhere(tmp_path):
    rng = random.Random(11)
    contents = []
    for _ in range(3000):
        content = bytearray(rng.choice(SEEDS).encode()[:2000])
        for _ in range(rng.randint(1, 4)):
            content[rng.randrange(len(content))] = rng.choice(b"\0\n\r\t $*'x09.-\xff")
        contents.append(bytes(content))
    assert 0 < read_in_child(written(tmp_path, contents)) < len(contents)


def test_compressed_files_changed_anywhere(tmp_path):
    rng = random.Random(12)
    whole = gzip.compress(mps(columns="".join(f" x{i} c {i}\n" for i in range(500))).encode())
    contents = [whole[:i] for i in range(0, len(whole), 7)]
    for _ in range(500):
        content = bytearray(whole)
        content[rng.randrange(10, len(content))] ^= 1 << rng.randrange(8)
        contents.append(bytes(content))
    # Bits of the deflate stream, the checksum or the length: none may pass.
    assert read_in_child(written(tmp_path, contents, "mps.gz")) == 0


def test_noise_and_endless_lines(tmp_path):
    rng = random.Random(13)
    head = b"NAME\nROWS\n N obj\nCOLUMNS\n"
    much = 20_000_000
    contents = [
        rng.randbytes(3_000_000),
        rng.randbytes(1000) * 5_000,
        b"\n" * 3_000_000,
        b" " * much,
        b"x" * much,
        head + b" x obj " + b"1" * much + b"\nENDATA\n",
        head + b" " + b"y" * much + b" obj 1\nENDATA\n",
        head + b" x obj 0." + b"0" * 1_000_000 + b"1e1000001\nENDATA\n",
        b"NAME " + b"n" * much + b"\nROWS\nCOLUMNS\nENDATA\n",
    ]
    paths = written(tmp_path, contents)
    with open(tmp_path / "endless.mps", "wb") as endless:
        endless.truncate(300_000_000)
    assert read_in_child([*paths, tmp_path / "endless.mps"]) == 3  # two long names, and 0.0...1e1000001, which is 1
    for path in paths:
        path.unlink()


SECTIONS = ["NAME", "ROWS", "COLUMNS", "RHS", "RANGES", "BOUNDS", "ENDATA", "OBJSENSE", "OBJNAME", "QUADOBJ"]
TYPES = ["N", "L", "G", "E", "UP", "LO", "FX", "FR", "MI", "PL", "BV", "LI", "UI", "SC", "MAX"]
NAMES = ["x", "y", "c", "obj", "r", "m", "'MARKER'", "'INTORG'", "'INTEND'", "$", "*"]
NUMBERS = ["1", "-2.5", "1e30", "inf", "nan", "0"]
WORDS = st.one_of(st.sampled_from(SECTIONS + TYPES + NAMES + NUMBERS), st.text(max_size=5))
LINES = st.builds(
    lambda start, words: start + " ".join(words), st.sampled_from(["", " ", "    "]), st.lists(WORDS, max_size=6)
)


@given(st.lists(LINES, max_size=20), st.sampled_from(sorted(VALID)), st.data())
@settings(max_examples=300, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
def test_lines_put_anywhere(tmp_path, lines, title, data):
    """In this process: the damage is in words here, and what comes back is looked at."""
    sound = VALID[title][0][:3000].splitlines()
    for line in lines:
        sound.insert(data.draw(st.integers(0, len(sound))), line)
    path = tmp_path / "m.mps"
    path.write_bytes("\n".join(sound).encode(errors="surrogatepass"))
    store = Store("")
    said = None
    try:
        store.call("TRVreadmodel", os.fsencode(path))
    except StoreError as error:
        said = str(error)
    found = snapshot(store)
    assert said is None or (f"{path}, line " in said and found == snapshot(Store("")))
    assert len(found["vars"]) == len(set(found["vars"])) == store.idcount(VAR)
    assert len(found["rows"]) == len(set(found["rows"])) == store.idcount(CONSTR)


@pytest.mark.parametrize("title", ["rhs twice", "no ENDATA", "zero byte"])
def test_reading_a_damaged_file_again_and_again_keeps_no_memory(title, tmp_path):
    path = tmp_path / "m.mps"
    path.write_text(DAMAGED[title][0])

    def resident():
        return int(Path("/proc/self/statm").read_text().split()[1])

    def many():
        for _ in range(300):
            with pytest.raises(StoreError):
                read(path)

    many()
    before = resident()
    many()
    assert resident() - before < 500  # pages; each reading has a buffer of 256
