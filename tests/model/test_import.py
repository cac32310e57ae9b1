"""Importing the package is cheap: names bring in their modules when they are used."""

import subprocess
import sys

import tarvopy


def run(code):
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


def test_importing_and_adding_variables_load_neither_numpy_nor_scipy():
    out = run(
        "import sys, tarvopy\n"
        "m = tarvopy.Model(); x = m.addVar(name='x'); c = 2 * x <= 1; tarvopy.MVar\n"
        "m.update(); print(m.NumVars, m.getVars(), m)\n"
        "print([name for name in ('numpy', 'scipy') if name in sys.modules])"
    )
    assert out.splitlines() == ["1 [<Var x>] <tarvopy.Model '': 1 variable, 0 constraints>", "[]"]


def test_import_loads_a_fraction_of_the_modules_that_numpy_loads():
    out = run(
        "import sys\n"
        "a = len(sys.modules); import tarvopy; tarvopy.Model\n"
        "b = len(sys.modules); import numpy\n"
        "print(b - a, len(sys.modules) - b)"
    )
    own, numpys = map(int, out.split())
    assert own < numpys / 3  # counted, since times on a busy machine say nothing


def test_every_public_name_is_there():
    for name in tarvopy.__all__:
        if name != "engines":
            assert getattr(tarvopy, name) is not None, name
    assert set(tarvopy.__all__) <= set(dir(tarvopy))
    assert tarvopy.inf == float("inf")
    assert not hasattr(tarvopy, "nothing")
