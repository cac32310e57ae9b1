"""The public names; see the modules they come from."""

from collections.abc import Iterable
from typing import Any, overload

from tarvopy import genfunc as genfunc
from tarvopy import nlfunc as nlfunc
from tarvopy._core import Constr as Constr
from tarvopy._core import GenConstr as GenConstr
from tarvopy._core import GenExpr as GenExpr
from tarvopy._core import LinExpr as LinExpr
from tarvopy._core import NLConstr as NLConstr
from tarvopy._core import NLExpr as NLExpr
from tarvopy._core import QConstr as QConstr
from tarvopy._core import QuadExpr as QuadExpr
from tarvopy._core import TempConstr as TempConstr
from tarvopy._core import Var as Var
from tarvopy._core import _Number, _Numbers
from tarvopy._exception import NoDataError as NoDataError
from tarvopy._exception import TarvoError as TarvoError
from tarvopy._matrixapi import MConstr as MConstr
from tarvopy._matrixapi import MGenConstr as MGenConstr
from tarvopy._matrixapi import MLinExpr as MLinExpr
from tarvopy._matrixapi import MNLConstr as MNLConstr
from tarvopy._matrixapi import MNLExpr as MNLExpr
from tarvopy._matrixapi import MQConstr as MQConstr
from tarvopy._matrixapi import MQuadExpr as MQuadExpr
from tarvopy._matrixapi import MVar as MVar
from tarvopy._matrixapi import concatenate as concatenate
from tarvopy._matrixapi import hstack as hstack
from tarvopy._matrixapi import vstack as vstack
from tarvopy._modelapi import __version__ as __version__
from tarvopy._trv import TRV as TRV
from tarvopy.model import Model as Model
from tarvopy.model import read as read

inf: float

@overload
def quicksum(iterable: Iterable[_Number | Var | LinExpr]) -> LinExpr: ...  # type: ignore[overload-overlap]
@overload
def quicksum(iterable: Iterable[_Number | Var | LinExpr | QuadExpr]) -> QuadExpr: ...  # type: ignore[overload-overlap]
@overload
def quicksum(iterable: Iterable[_Number | Var | LinExpr | QuadExpr | NLExpr]) -> NLExpr: ...  # type: ignore[overload-overlap]
@overload
def quicksum(iterable: Iterable[_Number | _Numbers | Var | LinExpr | MVar | MLinExpr]) -> MLinExpr: ...
@overload
def quicksum(iterable: Iterable[Any]) -> Any:
    """The sum of numbers, variables and expressions (scalar or matrix) in one pass; an empty LinExpr for none."""

def engines() -> dict[str, str | None]:
    """The engines that this release speaks to, by their value of `params.Engine`.

    {"highs": "HiGHS 1.15.1"}: name and version, None where the engine's package is not installed.
    """
