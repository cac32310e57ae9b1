"""Damaged files of every kind end in an error or in a model, never in a crash, a hang or a half-filled model."""

import gzip
import random
from pathlib import Path

import pytest
from hypothesis import settings

from solver.damaged_files import GENERAL_LP, GENERAL_MPS, KINDS, SOLUTION, read_damaged, read_files
from solver.model_file import mps, read
from solver.store import StoreError
from solver.test_mps import DAMAGED
from solver.test_mps_files import FIXED


def write_all(folder, contents, ending):
    for i, content in enumerate(contents):
        Path(folder, f"{i}.{ending}").write_bytes(content)


@pytest.mark.parametrize("kind", KINDS)
def test_refused_or_a_model_that_reads_back(kind, tmp_path):
    count = 8 * settings.default.max_examples
    found = read_damaged(kind, seed=1, count=count, folder=tmp_path)
    assert found["models"] > count // 80 < found["refused"]


# The last line end may be missing; a solution is a list of lines, whole after each and after most of its digits.
@pytest.mark.parametrize(
    ("text", "ending", "models"),
    [(FIXED, "mps", 2), (GENERAL_MPS, "mps", 2), (GENERAL_LP, "lp", 2), (SOLUTION, "sol", 40)],
    ids=["fixed", "general mps", "general lp", "sol"],
)
def test_cut_at_every_byte(text, ending, models, tmp_path):
    whole = text.encode()
    write_all(tmp_path, [whole[:i] for i in range(len(whole) + 1)], ending)
    assert read_files(tmp_path)["models"] == models


def test_no_changed_bit_of_an_archive_passes(tmp_path):
    rng = random.Random(12)
    whole = gzip.compress(mps(columns="".join(f" x{i} c {i}\n" for i in range(500))).encode())
    write_all(tmp_path, [whole[:i] for i in range(0, len(whole), 7)], "cut.mps.gz")
    for i in range(500):
        content = bytearray(whole)
        content[rng.randrange(10, len(content))] ^= 1 << rng.randrange(8)
        Path(tmp_path, f"{i}.turned.mps.gz").write_bytes(content)
    assert read_files(tmp_path)["models"] == 0


def test_noise_and_endless_lines(tmp_path):
    rng = random.Random(13)
    much = 20_000_000
    rows = b"NAME\nROWS\n N obj\nCOLUMNS\n"
    objective = b"min\n o: "
    in_mps = [
        rng.randbytes(3_000_000),
        rng.randbytes(1000) * 5_000,
        b"\n" * 3_000_000,
        b" " * much,
        b"x" * much,
        rows + b" x obj " + b"1" * much + b"\nENDATA\n",
        rows + b" " + b"y" * much + b" obj 1\nENDATA\n",
        rows + b" x obj 0." + b"0" * 1_000_000 + b"1e1000001\nENDATA\n",  # which is 1
        b"NAME " + b"n" * much + b"\nROWS\nCOLUMNS\nENDATA\n",
    ]
    in_lp = [
        rng.randbytes(3_000_000),
        objective + b"+ " * (much // 2) + b"x\nend\n",
        objective + b"x" * much + b"\nend\n",
        objective + b"1" * much + b" x\nend\n",
        objective + b"x" + b"[" * 1_000_000 + b"\nend\n",
        objective + b"[" * 1_000_000 + b"\nend\n",
        b"min\n o:\nst\n" + b"c: " * 1_000_000 + b"\nend\n",
        b"\\" * much,
    ]
    write_all(tmp_path, in_mps, "mps")
    write_all(tmp_path, in_lp, "lp")
    with open(tmp_path / "empty_blocks.mps", "wb") as endless:
        endless.truncate(300_000_000)
    assert read_files(tmp_path)["models"] == 6


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
