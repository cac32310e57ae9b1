"""Mathematical optimisation on arrays: variables, expressions and constraints shaped like NumPy arrays.

    import tarvopy
    m = tarvopy.Model()
    x = m.addMVar((3, 4), ub=10.0)
    m.addConstr(A @ x <= b)
    m.setObjective((c * x).sum())
    m.optimize()
    print(x.X)

Importing the package imports neither NumPy nor SciPy, and each public name brings in its module when it is first used.
"""

from typing import Any

inf = float("inf")
"""No bound."""

# name -> module that has it
_HOMES = {
    name: module
    for module, names in {
        "tarvopy._modelapi": ("__version__",),
        "tarvopy.model": ("Model", "read"),
        "tarvopy._trv": ("TRV",),
        "tarvopy._exception": ("TarvoError", "NoDataError"),
        "tarvopy._core": (
            *("Var", "LinExpr", "QuadExpr", "NLExpr", "GenExpr", "TempConstr"),
            *("Constr", "QConstr", "GenConstr", "NLConstr", "_quicksum"),
        ),
        "tarvopy._matrixapi": (
            *("MVar", "MLinExpr", "MQuadExpr", "MNLExpr", "MConstr", "MQConstr", "MGenConstr", "MNLConstr"),
            *("concatenate", "hstack", "vstack"),
        ),
        "tarvopy.solve": ("engines",),
    }.items()
    for name in names
}

_HOMES["quicksum"] = _HOMES.pop("_quicksum")  # native, and public under this name only

_MODULES = ("nlfunc", "genfunc")

__all__ = ["inf", *_HOMES, *_MODULES]


def __getattr__(name: str) -> Any:
    from importlib import import_module

    if name in _MODULES:
        return import_module(f"tarvopy.{name}")
    try:
        module = _HOMES[name]
    except KeyError:
        raise AttributeError(f"module 'tarvopy' has no attribute {name!r}") from None
    value = getattr(import_module(module), "_quicksum" if name == "quicksum" else name)
    globals()[name] = value
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *_HOMES, *_MODULES})
