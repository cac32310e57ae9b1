"""Damaged files by the thousand, read in child processes, so that a crash or a hang is an exit code.

    read_damaged("cut", seed=1, count=500, folder=tmp_path)         how many were models, how many were refused
    read_files(tmp_path)                                            the same of the files that stand there
    python -m solver.damaged_files [SECONDS [FOLDER]]               a night's run, every kind with ever new seeds

Of each file one of two things holds: it is refused, with its path and mostly its line, and the model stays empty; or
it is a model, which reads back equal from each format that can say it.
"""

import gzip
import math
import os
import random
import shutil
import signal
import subprocess
import sys
import time
from collections import Counter
from pathlib import Path

from solver.model_file import FILE, SYNTAX, UNSUPPORTED, mps, returned, snapshot
from solver.store import Store, StoreError
from solver.test_lp import OTHERWISE as LP_OTHERWISE
from solver.test_lp import VALID as LP_VALID
from solver.test_mps import OTHERWISE as MPS_OTHERWISE
from solver.test_mps import VALID as MPS_VALID
from solver.test_mps_files import FIXED

GENERAL_MPS = mps(
    rows=" N obj\n L c\n G q\n",
    bounds=" SC b x 5\n LI b y 2\n",
    ranges=" g c 3\n",
    end="QUADOBJ\n x x 2\n x y -1\nQCMATRIX q\n x x 1\nSOS\n S1 s\n x 1\n y 2.5\n S2 t\n y -1\nENDATA\n",
)
GENERAL_LP = """\\Problem name: all
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
SOLUTION = "# Objective value = 12.5\nx 1.5\ny -2e10\na name with blanks 3D-1\n z\t0\n"
SOLVED = ["x", "y", "a name with blanks", "z"]

SEEDS = {
    "mps": [
        text if isinstance(text, bytes) else text.encode()
        for text in (
            GENERAL_MPS,
            mps(end="INDICATORS\n IF c y 0\nENDATA\n"),
            FIXED,
            *(case[0] for case in MPS_VALID.values()),
            *(case[0] for case in MPS_OTHERWISE.values()),
        )
    ],
    "lp": [
        text if isinstance(text, bytes) else text.encode()
        for text in (
            GENERAL_LP,
            *(case[0] for case in LP_VALID.values()),
            *(case[0] for case in LP_OTHERWISE.values()),
        )
    ],
    "sol": [SOLUTION.encode()],
}
SEEDS = {ending: [text for text in texts if len(text) < 20_000] for ending, texts in SEEDS.items()}

NUMBERS = "0 -0 1 -2.5 1e20 1e400 -1e400 1e-400 inf -Infinity nan 0x1p3 1,5 1.5.2 --1 +-1 1e 1e+ 1D2 .5 5. ."
NAMES = (
    "x y z c obj r b x[1,2] $ * ' 'MARKER' 'INTORG' 'INTEND' free inf S1 S2 IF UP FX SC RHS \u0664 ] [ \x7f a\u202eb"
)
SECTIONS = """NAME ROWS COLUMNS RHS RANGES BOUNDS ENDATA OBJSENSE OBJNAME QUADOBJ QMATRIX QCMATRIX SOS INDICATORS min
    max st bounds general binary semi sos end S1:: S2:: x: c: -> <= >= = < > [ ] ^2 / 2 + - * : \\"""
LONG = ["9" * 400, "0." + "0" * 400 + "1", "1" + "0" * 5000, "n" * 300]
WORDS = [word.encode() for word in [*f"{NUMBERS} {NAMES} {SECTIONS}".split(), *LONG]]
BYTES = b"\0\n\r\t\x1a $*'x09.-+/^<>=:[]\\#\x7f\x80\xc3\xff"


# ---- kinds of damage: from a chance and a sound text to a damaged one ------------------------------------------------


def cut(rng, text, other):
    return text[: rng.randrange(len(text) + 1)]


def bytes_changed(rng, text, other):
    content = bytearray(text)
    for _ in range(rng.randint(1, 4)):
        content[rng.randrange(len(content))] = rng.choice(BYTES)
    return bytes(content)


def words_changed(rng, text, other):
    words = text.replace(b"\n", b" \n ").split(b" ")
    for _ in range(rng.randint(1, 3)):
        at = rng.randrange(len(words))
        words[at : at + rng.randrange(3)] = rng.choices(WORDS, k=rng.randrange(3))
    return b" ".join(words).replace(b" \n ", b"\n")


def lines_moved(rng, text, other):
    """Lines and whole stretches of them doubled, left out, put elsewhere, or taken from another file."""
    lines = text.split(b"\n")
    for _ in range(rng.randint(1, 3)):
        begin = rng.randrange(len(lines))
        stretch = lines[begin : begin + rng.choice([1, 1, 2, 5])]
        if rng.random() < 0.4 and len(lines) > len(stretch):
            del lines[begin : begin + len(stretch)]
        if rng.random() < 0.3:
            stretch = rng.choices(other.split(b"\n"), k=2)
        place = rng.randint(0, len(lines))
        lines[place:place] = stretch
    return b"\n".join(lines)


def recoded(rng, text, other):
    code = rng.choice(
        ["utf-16", "utf-16-le", "utf-16-be", "utf-32", "utf-8-sig", "cr", "crlf", "blank", "tail", "latin"]
    )
    if code in ("cr", "crlf"):
        return text.replace(b"\n", b"\r" if code == "cr" else b"\r\n")
    if code == "blank":
        return text.replace(b" ", rng.choice([b"\t", b"\xc2\xa0", b"   ", b"\x0b"]))
    if code == "tail":
        return text + rng.choice([b"\0", b"\x1a", b"\xff\n", text, b"\n\n\n", other])
    if code == "latin":
        return text.replace(b"x", "é".encode("latin-1"))
    return text.decode(errors="replace").encode(code)


def packed(rng, text, other):
    """Archives cut, with bits turned, in several pieces, with something behind them."""
    whole = bytearray(gzip.compress(text, rng.choice([0, 1, 9])))
    how = rng.randrange(4)
    if how == 0:
        return bytes(whole[: rng.randrange(len(whole))])
    if how == 1:
        whole[rng.randrange(len(whole))] ^= 1 << rng.randrange(8)
        return bytes(whole)
    half = len(text) // 2
    if how == 2:
        return gzip.compress(text[:half]) + gzip.compress(text[half:])
    return bytes(whole) + rng.choice([b"\0" * 9, b"noise", gzip.compress(other)[:20]])


def noise(rng, text, other):
    alphabet = rng.choice([bytes(range(256)), b" \n\t", BYTES, b"x1 \n+-<=[]*^:/"])
    return bytes(rng.choices(alphabet, k=rng.choice([1, 10, 300, 3000])))


def spliced(rng, text, other):
    return text[: rng.randrange(len(text) + 1)] + other[rng.randrange(len(other) + 1) :]


KINDS = {f.__name__: f for f in (cut, bytes_changed, words_changed, lines_moved, recoded, packed, noise, spliced)}


# ---- what holds of each file -----------------------------------------------------------------------------------------


def check_said(error, path):
    """Not the words of a layer below that knows no file."""
    said = str(error)
    assert error.code in (SYNTAX, FILE, UNSUPPORTED), (error.code, said)
    assert said.startswith((f"{path}, line ", f"cannot read '{path}': ", f"cannot open '{path}': ")), said


def check_model(path):
    store = Store("")
    try:
        store.call("TRVreadmodel", os.fsencode(path))
    except StoreError as error:
        check_said(error, path)
        assert snapshot(store) == snapshot(Store(""))
        return "refused"
    found = snapshot(store)
    for ending in ("mps", "lp"):
        try:
            again = snapshot(returned(store, f"{path}.back.{ending}"))
        except StoreError as error:
            if error.code != UNSUPPORTED:
                raise
        else:
            assert again == found, ending
    return "models"


def check_solution(path):
    store = Store("")
    store.addvars(len(SOLVED), names=SOLVED)
    try:
        store.call("TRVreadsolution", os.fsencode(path))
    except StoreError as error:
        check_said(error, path)
        assert all(math.isnan(value) for value in store.dbls("Start", range(len(SOLVED))))
        return "refused"
    return "models"


def damaged(kind, rng):
    ending = rng.choice(["mps", "mps", "lp", "lp", "sol"])
    text, other = rng.choice(SEEDS[ending]), rng.choice(SEEDS[rng.choice(list(SEEDS))])
    return ending, KINDS[kind](rng, text, other)


def made(kind, seed, count, folder):
    """One file after the other under the same few names: what is there after a fall is the file that made it."""
    for i in range(count):
        ending, content = damaged(kind, random.Random(f"{kind} {seed} {i}"))
        path = Path(folder, f"{kind}.{ending}")
        path.write_bytes(content)
        yield path


def child(paths, most_seconds):
    found = Counter()
    for path in paths:
        signal.alarm(most_seconds)  # not caught, so that a hang ends the process
        found[check_solution(path) if ".sol" in path.suffixes else check_model(path)] += 1
        signal.alarm(0)
        path.unlink()
    print(found["models"], found["refused"])


def read_in_child(folder, *arguments):
    places = os.pathsep.join(place for place in sys.path if place)
    done = subprocess.run(
        [sys.executable, "-m", "solver.damaged_files", "child", str(folder), *map(str, arguments)],
        env={**os.environ, "PYTHONPATH": places},
        capture_output=True,
        text=True,
    )
    assert done.returncode == 0, f"{arguments}: exit {done.returncode}, see {folder}\n{done.stderr[-3000:]}"
    models, refused = map(int, done.stdout.split()[-2:])
    return Counter(models=models, refused=refused)


def read_damaged(kind, seed, count, folder):
    return read_in_child(folder, kind, seed, count)


def read_files(folder):
    """All that stand there; they are gone afterwards."""
    return read_in_child(folder)


def run_for(seconds="28800", folder="build/damaged"):
    """How many runs failed; each leaves its file in a folder of its own."""
    end, seed, counts, failed = (
        time.monotonic() + float(seconds),
        int(time.time()),
        {kind: Counter() for kind in KINDS},
        0,
    )
    while time.monotonic() < end:
        for kind in KINDS:
            place = Path(folder, f"{kind}-{seed}")
            place.mkdir(parents=True)
            try:
                counts[kind] += read_damaged(kind, seed, 2000, place)
                shutil.rmtree(place)
            except AssertionError as error:
                failed += 1
                print(error, flush=True)
        seed += 1
    for kind, count in counts.items():
        print(f"{kind:15} {count['models']:9} models {count['refused']:9} refused")
    print(f"{failed} runs failed")
    return failed


def main(arguments):
    if arguments[:1] != ["child"]:
        return run_for(*arguments)
    _, folder, *kind = arguments
    if kind:
        child(made(kind[0], int(kind[1]), int(kind[2]), folder), most_seconds=20)  # files of a few hundred bytes
    else:
        child(sorted(Path(folder).iterdir()), most_seconds=60)
    return 0


if __name__ == "__main__":
    raise SystemExit(main(sys.argv[1:]) > 0)
