"""What a solve prints, by LogLevel and by where it goes."""

import io
import re
import sys

import pytest

import tarvopy
from mps_text import market_split
from tarvopy import TRV
from tarvopy.engines.base import Outcome, Progress
from tarvopy.progress import Reporter, outcome_text, status_text


class Terminal(io.StringIO):
    def isatty(self):
        return True


class Engine:
    name = "Engine"

    def progress(self):
        return Progress(3.0, 120.0, None, None, None)

    def take_log(self):
        return "said\n"


def solved(level):
    m = tarvopy.Model()
    x = m.addMVar(3, lb=1.0, obj=[1, 2, 3.0])
    m.addConstr(x.sum() >= 5)
    m.params.LogLevel = level
    m.optimize()
    assert m.Status == TRV.OPTIMAL


def test_levels_of_a_short_solve(capfd):
    solved(0)
    assert capfd.readouterr() == ("", "")
    solved(1)
    out, err = capfd.readouterr()
    assert re.fullmatch(r"HiGHS: optimal, objective 8, \d+\.\d\d s\n", out)
    assert err == ""
    solved(2)
    out, _ = capfd.readouterr()
    assert "Presolving model" in out or "LP" in out
    assert out.count("optimal, objective 8") == 1
    assert out.count("Model status        : Optimal") == 1  # the callback's text, not the engine's own printing too


def test_engine_log_comes_as_it_is_made(tmp_path, monkeypatch):
    path = tmp_path / "split.mps"
    path.write_text(market_split())
    pieces = []

    class Stream(io.StringIO):
        def write(self, text):
            pieces.append(text)
            return len(text)

    monkeypatch.setattr(sys, "stdout", Stream())
    with tarvopy.read(path) as m:
        m.params.LogLevel = 2
        for m.params.TimeLimit in (0.6, 5, 30):  # the later ones where others keep the processors busy
            pieces.clear()
            m.optimize()
            if hasattr(m, "ObjVal"):
                break
    assert len(pieces) >= 3
    text = "".join(pieces)
    assert text.index("Presolving") < text.index("Solving report") < text.index("HiGHS: time limit, objective")


def test_status_lines_in_words():
    assert status_text("E", Progress(12.4, 5817.0, None, None, None)) == "E  12 s  iterations 5817"
    begun = Progress(0.6, 3.0, 0.0, None, None)
    assert status_text("E", begun) == "E  1 s  nodes 0  best none yet  iterations 3"
    full = Progress(12.0, 9.0, 304.0, 37.0, 30.5)
    assert status_text("E", full) == "E  12 s  nodes 304  best 37  bound 30.5  gap 17.6%  iterations 9"
    assert outcome_text("E", Outcome(TRV.INFEASIBLE, runtime=1.0)) == "E: infeasible, 1.00 s"
    limited = Outcome(TRV.TIME_LIMIT, has_x=True, objval=1e7 / 3, bound=3e6, runtime=2.5, message="why")
    assert outcome_text("E", limited) == "E: time limit, objective 3333333.3, bound 3000000, 2.50 s (why)"


def clocked(monkeypatch, stream, seconds, level=1):
    """What a reporter writes when it is asked every eighth of a second."""
    now = [0.0]
    monkeypatch.setattr("tarvopy.progress.time.monotonic", lambda: now[0])
    reporter = Reporter(level, stream)
    reporter.engine = Engine()
    for _ in range(int(seconds * 8)):
        now[0] += 0.125
        reporter.show()
    return reporter


def test_a_terminal_has_one_line_that_is_cleared(monkeypatch):
    stream = Terminal()
    reporter = clocked(monkeypatch, stream, 5)
    line = "Engine  3 s  iterations 120"
    assert stream.getvalue() == f"\r{line}" * 5
    reporter.line("note")
    assert stream.getvalue().endswith("\r" + " " * len(line) + "\rnote\n")


def test_elsewhere_lines_come_ever_more_seldom(monkeypatch):
    stream = io.StringIO()
    clocked(monkeypatch, stream, 1000)
    assert stream.getvalue().count("\n") == 10  # 1, 2, 4, ... 512 s


@pytest.mark.parametrize("broken", ["closed", "none"])
def test_a_lost_output_does_not_stop_a_solve(monkeypatch, broken):
    stream = io.StringIO()
    stream.close()
    monkeypatch.setattr(sys, "stdout", stream if broken == "closed" else None)
    solved(2)
