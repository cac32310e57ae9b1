"""Fixtures that tests of several folders share."""

import os
from pathlib import Path

import pytest
from hypothesis import HealthCheck, settings

# A machine with other work on it draws and runs examples slowly, which says nothing about this package. A profile's
# number scales what makes many cases: programs are 30 times as many.
settings.register_profile("ci", deadline=None, suppress_health_check=[HealthCheck.too_slow])
settings.register_profile("night", settings.get_profile("ci"), max_examples=6_667)
settings.register_profile("sanitize", settings.get_profile("ci"), max_examples=20)
settings.load_profile("ci")


@pytest.fixture(params=["flat", "eager"])
def mode(request):
    """Runs a test twice: objects made on demand, and all objects made at once. Nothing may tell the difference."""
    import tarvopy._debug as debug

    debug.eager(request.param == "eager")
    yield request.param
    debug.eager(False)


@pytest.fixture(scope="session")
def instances() -> Path:
    """The folder of model files with known answers that TARVOPY_INSTANCES names; without it the test is skipped."""
    folder = os.environ.get("TARVOPY_INSTANCES")
    if not folder:
        pytest.skip("TARVOPY_INSTANCES names no folder of model files")
    return Path(folder)
