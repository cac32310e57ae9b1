"""params.IterationLimit in SCIP, whose own limits of LP iterations are for each LP: all are counted here.

    stop_after_iterations(package, scip, 100)       before the run; it then ends as "userinterrupt"

An LP that SCIP's own limit cuts short is not reported as solved, so nodes are looked at as well. SCIP calls on the
thread that it runs on and needs the interpreter's lock for it, a few microseconds each time.
"""

from __future__ import annotations

import weakref
from typing import Any


def stop_after_iterations(package: Any, scip: Any, limit: float) -> None:
    model = weakref.ref(scip)

    class LpIterations(package.Eventhdlr):
        def eventinit(self) -> None:
            for event in (package.SCIP_EVENTTYPE.LPSOLVED, package.SCIP_EVENTTYPE.NODEFOCUSED):
                model().catchEvent(event, self)

        def eventexec(self, _event: Any) -> None:
            if model().getNLPIterations() >= limit:
                model().interruptSolve()

    handler = LpIterations()
    scip.includeEventhdlr(handler, "tarvopy-iterations", "ends the run after so many LP iterations")
    handler.model = None  # the package holds each by the other, in a way that the collector cannot see: 1 MB a model
