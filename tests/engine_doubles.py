"""Engines that give the answers they are told, for tests of what is around engines.

First = double("First", [point(1.0, 2.0), point(0.0, 2.0)])     one answer a run; refine() is a run too
use(monkeypatch, highs=First, scip=Second)                      what stands behind params.Engine
First.log                                                       ["load", "start 10.0", "refine 9.98", "close"]
"""

from types import SimpleNamespace

import numpy as np

from tarvopy import TRV, TarvoError, engines
from tarvopy.engines.base import Outcome, Progress


def point(*x, status=TRV.OPTIMAL, pi=None, rc=None, qpi=None, objval=0.0, bound=None, runtime=0.5):
    """An answer; multipliers are given by `pi`, `rc` and `qpi` together or not at all. It is at its bound if none is
    given.
    """
    bound = objval if bound is None else bound
    return SimpleNamespace(x=x, status=status, pi=pi, rc=rc, qpi=qpi, objval=objval, bound=bound, runtime=runtime)


def double(name, answers=(), *, refusal=None, missing=None, fails=None):
    """A class by the protocol of engines: refusal(problem) says what it cannot take (None: nothing), missing which
    package is not there, fails what load() raises.
    """

    class Double:
        log = []  # noqa: RUF012 - one for each class

        def __init__(self):
            self._answers = iter(answers)
            self._left = len(answers)
            self.loads = 0

        @classmethod
        def full_name(cls):
            if missing:
                raise TarvoError(TRV.ERROR_UNSUPPORTED, missing)
            return f"{name} 1.0"

        @classmethod
        def refusal(cls, problem):
            return refusal(problem) if refusal else None

        def load(self, problem):
            if fails:
                raise fails
            self.loads += 1
            self.log.append("load")

        def change(self, problem, changes):
            return False

        def counts(self):
            return {}

        def _run(self, what, params):
            self._left -= 1
            self.answer = next(self._answers)
            self.log.append(f"{what} {params.TimeLimit:.3g}")

        def start(self, problem, params):
            self._run("start", params)

        def refine(self, problem, params):
            if not self._left:
                return False
            self._run("refine", params)
            return True

        running = False

        def wait(self, seconds):
            return True

        def progress(self):
            return Progress(0.0, 0.0, None, None, None)

        def take_log(self):
            return ""

        def interrupt(self):
            self.log.append("interrupt")

        def again(self, problem):
            return False

        def outcome(self, problem):
            a = self.answer
            return Outcome(
                a.status,
                has_x=bool(a.x),
                has_duals=a.rc is not None,
                objval=a.objval,
                bound=a.bound,
                runtime=a.runtime,
                itercount=1.0,
            )

        def write_solution(self, outcome, x, rc, pi, qpi):
            a = self.answer
            for array, values in ((x, a.x), (rc, a.rc), (pi, a.pi), (qpi, a.qpi)):
                if values is not None and len(values):
                    array[:] = np.asarray(values, float)

        def close(self):
            self.log.append("close")

    Double.name = Double.__name__ = name
    return Double


def use(monkeypatch, **classes):
    """Puts classes behind values of params.Engine; the others are not installed."""

    def engine_class(key):
        return classes.get(key) or double(key, missing=f"no {key}")

    monkeypatch.setattr(engines, "engine_class", engine_class)
