"""Ctrl-C, with real signals to child processes: in a solve that needs minutes, and while files are read and written."""

import signal
import subprocess
import sys
import threading
import time
from typing import ClassVar

import pytest

from mps_text import market_split

ACKNOWLEDGED = "Ctrl-C: stopping at the engine's next check"

BEGIN = """
import os, signal, sys, threading, time
import tarvopy
import tarvopy.flight
from tarvopy.engines.highs import HighsEngine
signal.signal(signal.SIGINT, signal.default_int_handler)  # a shell's background jobs start with it ignored
m = tarvopy.read(sys.argv[1])
m.params.LogLevel = 0

def say(*what):
    print(*what, flush=True)

def interrupt_after(*seconds):
    for s in seconds:
        threading.Timer(s, os.kill, (os.getpid(), signal.SIGINT)).start()

running, wait = [], HighsEngine.wait            # the engine that is being waited for
def noted(self, seconds):
    running[:] = [self]
    return wait(self, seconds)
HighsEngine.wait = noted

def when_it_runs(then, ready=lambda engine: True):
    running.clear()
    def look():
        while not (running and ready(running[0])):
            time.sleep(0.01)
        then()
    threading.Thread(target=look, daemon=True).start()

def interrupt_when_it_runs(*seconds):           # not after a time that a busy machine may need to begin
    when_it_runs(lambda: interrupt_after(*seconds))
"""


@pytest.fixture(scope="module")
def hard(tmp_path_factory):
    path = tmp_path_factory.mktemp("hard") / "split.mps"
    path.write_text(market_split())
    return str(path)


class Child:
    """A Python process, its lines with the time since the last signal, and how it ended."""

    started: ClassVar[list] = []

    def __init__(self, code, path):
        self.process = subprocess.Popen(
            [sys.executable, "-c", BEGIN + code, path],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            start_new_session=True,
        )
        self.started.append(self)
        self.began = time.monotonic()

    def line(self):
        return self.process.stdout.readline().rstrip("\n")

    def interrupt(self):
        self.began = time.monotonic()
        self.process.send_signal(signal.SIGINT)

    def seconds(self):
        return time.monotonic() - self.began

    def finish(self, seconds=30):
        late = threading.Timer(seconds, self.process.kill)
        late.start()
        try:
            rest = self.process.stdout.read()  # communicate() passes over what line() has buffered
            self.process.wait()
        finally:
            late.cancel()
            self.process.kill()
        return rest.splitlines(), self.process.returncode


@pytest.fixture(autouse=True)
def nobody_left():
    """A test that fails half-way leaves no solve without end behind."""
    yield
    for child in Child.started:
        child.process.kill()
        child.process.wait()
    Child.started.clear()


def test_ctrl_c_is_acknowledged_at_once_and_keeps_the_incumbent(hard):
    child = Child(
        """
when_it_runs(lambda: say("solving"), lambda engine: (engine.progress().incumbent or 1e9) < 1e9)
m.optimize()
say(m.Status, m.ObjVal, sum(v.X for v in m.getVars()[-12:]), m.ObjBound, m.Runtime)
m.params.TimeLimit = 0.3
m.optimize()
say(m.Status, m.ObjVal)
""",
        hard,
    )
    assert child.line() == "solving"
    child.interrupt()
    assert child.line().startswith(ACKNOWLEDGED)
    assert child.seconds() < 20  # the solve would take for ever
    (result, again), code = child.finish()
    status, objective, at_x, bound, runtime = map(float, result.split())
    assert (status, code) == (9, 0)  # INTERRUPTED
    assert 0 < objective == pytest.approx(at_x, abs=1e-6)
    assert 0 <= bound <= objective
    assert runtime > 0
    status, second = map(float, again.split())
    assert status == 5  # the interrupt does not stick: TIME_LIMIT
    assert second <= objective  # and the incumbent was the start


def test_a_second_ctrl_c_leaves_and_the_model_is_free_when_the_engine_has_stopped(hard):
    child = Child(
        """
HighsEngine.interrupt = lambda self: None       # an engine that is far from its next check
m.params.TimeLimit = 2.0
interrupt_when_it_runs(0.1, 0.4)
try:
    m.optimize()
except KeyboardInterrupt:
    say("left")
for use in (lambda: m.Status, m.addVar, m.optimize, m.close):
    try:
        use()
    except tarvopy.TarvoError as error:
        say(error)
while True:
    try:
        m.update()
        break
    except tarvopy.TarvoError:
        time.sleep(0.05)
say(m.Status)
m.optimize()
say(m.Status)
""",
        hard,
    )
    lines, code = child.finish()
    refused = "the model is being solved; it can be used again when the engine has stopped"
    assert lines[0].startswith(ACKNOWLEDGED)
    assert lines[1:] == ["left", *[refused] * 4, "0", "5"]
    assert code == 0


def test_ctrl_c_is_acknowledged_while_an_engine_is_loaded(hard):
    child = Child(
        """
import tarvopy.solve
tarvopy.solve._MUCH = 0                         # a large model
load = HighsEngine.load
def slow(*args):
    interrupt_after(*interrupts)
    time.sleep(1.5)
    load(*args)
    say("loaded")
HighsEngine.load = slow
interrupts = (0.2,)
m.optimize()
say(m.Status)
interrupts = (0.2, 0.6)
m.addVar()
try:
    m.optimize()
except KeyboardInterrupt:                       # only when nobody reads the model any more
    say("left", m.NumVars)
""",
        hard,
    )
    lines, code = child.finish()
    assert lines[0].startswith(ACKNOWLEDGED)
    assert lines[1:3] == ["loaded", "9"]
    assert lines[3].startswith(ACKNOWLEDGED)
    assert lines[4] == "loaded"
    assert lines[5].startswith("left")
    assert code == 0


def test_other_handlers_and_other_threads(hard):
    child = Child(
        """
import numpy                                    # which would raise what a handler raises, and slowly under sanitizers
def handler(*_):
    raise KeyboardInterrupt                     # a handler of the program's own
signal.signal(signal.SIGINT, handler)
interrupt_when_it_runs(0)
m.optimize()
say(m.Status, signal.getsignal(signal.SIGINT) is handler)

signal.signal(signal.SIGINT, signal.default_int_handler)
solve = threading.Thread(target=m.optimize)
try:
    interrupt_when_it_runs(0)
    solve.start()
    solve.join()
except KeyboardInterrupt:                       # signals are the main thread's: its wait ends, the solve does not
    say("main", solve.is_alive())
running[0].interrupt()
solve.join()
say(m.Status, signal.getsignal(signal.SIGINT) is signal.default_int_handler)
""",
        hard,
    )
    lines, code = child.finish()
    assert lines[0].startswith(ACKNOWLEDGED)
    assert lines[1:] == ["9 True", "main True", "9 True"]
    assert code == 0


@pytest.mark.parametrize(
    "code",
    [
        # the program ends while a daemon thread solves
        """
threading.Thread(target=m.optimize, daemon=True).start()
while not running: time.sleep(0.01)
say('end')
""",
        # ... with an engine that does not come back
        """
HighsEngine.interrupt = lambda self: None
tarvopy.flight.PATIENCE_AT_EXIT = 0.5
threading.Thread(target=m.optimize, daemon=True).start()
while not running: time.sleep(0.01)
say('end')
""",
        # ... that was left by a second Ctrl-C
        """
HighsEngine.interrupt = lambda self: None
tarvopy.flight.PATIENCE_AT_EXIT = 0.5
interrupt_when_it_runs(0, 0.3)
try:
    m.optimize()
except KeyboardInterrupt:
    say('end')
""",
    ],
)
def test_the_interpreter_ends_while_a_solve_is_in_flight(hard, code):
    child = Child(code, hard)
    lines, returncode = child.finish(20)
    assert lines[-1] == "end"
    assert returncode == 0
    assert child.seconds() < 10


def test_ctrl_c_while_files_are_read_and_written(tmp_path):
    (tmp_path / "empty.lp").write_text("Minimize\nSubject To\nEnd\n")
    child = Child(
        """
import numpy as np, scipy.sparse as sp
folder = os.path.dirname(sys.argv[1])
big, packed, full = folder + "/big.mps", folder + "/big.mps.gz", tarvopy.Model()
x = full.addMVar(150_000, name="flow_on_arc")
full.addConstr(sp.random_array((100_000, 150_000), density=5e-5, format="csr", rng=1) @ x <= 1, name="balance_at")
full.write(big)
open(packed, "w").write("old")

def begin(what, call):
    say(what)
    try:
        call()
    except KeyboardInterrupt:
        say("left")

begin("writing", lambda: full.write(packed))
say(open(packed).read(), len(os.listdir(folder)), full.NumVars)
begin("reading", lambda: m.read(big))
say(m.NumVars, m.NumConstrs)
m.read(big)
say(m.NumVars, m.NumConstrs)

def handler(*_):
    for use in (lambda: full.NumVars, full.update, full.close, lambda: full.write(big), lambda: full.read(big)):
        try:
            use()
        except tarvopy.TarvoError as error:
            say(error)
    say(repr(full))
    raise ZeroDivisionError

signal.signal(signal.SIGALRM, handler)
signal.setitimer(signal.ITIMER_REAL, 0.1)
try:
    full.write(packed)
except ZeroDivisionError:
    say("left", open(packed).read(), full.NumVars)
""",
        str(tmp_path / "empty.lp"),
    )
    for what, then in ("writing", "old 3 150000"), ("reading", "0 0"):
        assert child.line() == what
        time.sleep(0.1)  # each takes at least four times as long
        child.interrupt()
        assert child.line() == "left"
        assert child.seconds() < 2  # some hundredths; the processors may be busy
        assert child.line() == then
    lines, code = child.finish()
    refused = "the model is being read from a file or written to one; it can be used again when that is done"
    assert lines[0] == "150000 100000"
    assert lines[1:] == [*[refused] * 5, "<tarvopy.Model (being read or written)>", "left old 150000"]
    assert code == 0
