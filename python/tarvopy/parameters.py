"""The parameters of a solve: m.params.TimeLimit = 60. Each is checked when it is set: engines meet none that is wrong.

One row of the class below is one parameter: its type, default, range and documentation.
"""

from __future__ import annotations

import math
import operator
from collections.abc import Iterator
from typing import Any

from tarvopy._exception import TarvoError
from tarvopy._trv import TRV

_INT32_MAX = 2**31 - 1


def _invalid(message: str) -> TarvoError:
    return TarvoError(TRV.ERROR_INVALID_ARGUMENT, message)


class _Parameter:
    """A data descriptor that checks what is stored."""

    def __init__(self, default: Any, doc: str, values: str) -> None:
        self.default = default
        self.__doc__ = f"{doc} {values}, {default!r} unless set."

    def __set_name__(self, owner: type, name: str) -> None:
        self.name = name

    def __get__(self, params: Parameters | None, owner: type | None = None) -> Any:
        return self if params is None else params._values.get(self.name, self.default)

    def __set__(self, params: Parameters, value: Any) -> None:
        params._values[self.name] = self.checked(value)

    def __delete__(self, params: Parameters) -> None:
        params._values.pop(self.name, None)

    def checked(self, value: Any) -> Any:
        raise NotImplementedError

    def wrong_type(self, wanted: str, value: Any) -> TypeError:
        return TypeError(f"parameter {self.name} is {wanted}, not {type(value).__name__!r}")


class _Real(_Parameter):
    def __init__(self, default: float, low: float, high: float, doc: str) -> None:
        super().__init__(default, doc, f"From {low:g} to {high:g}")
        self.low, self.high = low, high

    def checked(self, value: Any) -> float:
        if isinstance(value, (str, bytes, bool)) or not (hasattr(value, "__float__") or hasattr(value, "__index__")):
            raise self.wrong_type("a number", value)
        try:
            number = float(value)
        except OverflowError:
            number = math.inf if value > 0 else -math.inf
        if not self.low <= number <= self.high:
            raise _invalid(f"parameter {self.name} is between {self.low:g} and {self.high:g}, not {number!r}")
        return number


class _Integer(_Parameter):
    """With `unlimited`, infinity is a value too: it stands for no limit."""

    def __init__(self, default: float, low: int, high: int, doc: str, unlimited: bool = False) -> None:
        super().__init__(default, doc, f"A whole number from {low} {'on or inf' if unlimited else f'to {high}'}")
        self.low, self.high, self.unlimited = low, high, unlimited

    def checked(self, value: Any) -> float:
        if isinstance(value, bool):
            raise self.wrong_type("an integer", value)
        if hasattr(value, "is_integer"):  # a float, Python's or NumPy's
            if self.unlimited and value == math.inf:
                return math.inf
            if value.is_integer():  # 1e6 nodes
                value = int(value)
        try:
            whole = operator.index(value)
        except TypeError:
            raise self.wrong_type("an integer" + (" or inf" if self.unlimited else ""), value) from None
        if not self.low <= whole <= self.high:
            limit = " or inf" if self.unlimited else ""
            raise _invalid(f"parameter {self.name} is between {self.low} and {self.high}{limit}, not {whole}")
        return whole


class _Choice(_Parameter):
    def __init__(self, default: str, choices: tuple[str, ...], doc: str) -> None:
        super().__init__(default, doc, f"One of {', '.join(map(repr, choices))}")
        self.choices = choices

    def checked(self, value: Any) -> str:
        if not isinstance(value, str):
            raise self.wrong_type("a string", value)
        if value not in self.choices:
            raise _invalid(f"parameter {self.name} is one of {', '.join(map(repr, self.choices))}, not {value!r}")
        return value


class _Options(_Parameter):
    def __init__(self, doc: str) -> None:
        super().__init__({}, doc, "A dict with strings as keys, copied when it is set")

    def __get__(self, params: Parameters | None, owner: type | None = None) -> Any:
        return self if params is None else params._values.setdefault(self.name, {})

    def checked(self, value: Any) -> dict[str, Any]:
        if not isinstance(value, dict):
            raise self.wrong_type("a dict", value)
        for key in value:
            if not isinstance(key, str):
                raise TypeError(f"the keys of parameter {self.name} are strings, not {type(key).__name__!r}")
        return dict(value)


class Parameters:
    """What a solve goes by. Wrong types raise TypeError, values out of range TarvoError, unknown names AttributeError.

    `del m.params.TimeLimit` brings a default back, `m.params.reset()` all of them; iteration gives (name, value) pairs.
    """

    __slots__ = ("_values",)

    TimeLimit = _Real(math.inf, 0.0, math.inf, "Seconds after which a solve stops with TIME_LIMIT.")
    RelGap = _Real(1e-4, 0.0, math.inf, "Relative gap between objective and bound that counts as proven.")
    AbsGap = _Real(1e-6, 0.0, math.inf, "Absolute gap between objective and bound that counts as proven.")
    FeasibilityTol = _Real(1e-7, 1e-10, 1e-2, "By how much rows and bounds may be violated, absolute.")
    OptimalityTol = _Real(1e-7, 1e-10, 1e-2, "By how much reduced costs may have the wrong sign.")
    IntegralityTol = _Real(1e-6, 1e-10, 1e-1, "How far an integer variable may be from a whole number.")
    Threads = _Integer(0, 0, 1024, "Threads of the engine; 0 leaves the number to it.")
    Seed = _Integer(0, 0, _INT32_MAX, "Seed of the engine's random choices.")
    LogLevel = _Integer(1, 0, 2, "0 silent, 1 progress in one line, 2 the engine's own log.")
    NodeLimit = _Integer(math.inf, 0, 2**53, "Branch-and-bound nodes after which a solve stops with NODE_LIMIT.", True)
    IterationLimit = _Integer(
        math.inf, 0, 2**53, "Iterations, of all LPs together, after which a solve stops with ITERATION_LIMIT.", True
    )
    SolutionLimit = _Integer(
        math.inf, 1, 2**53, "Improving solutions after which a solve stops with SOLUTION_LIMIT.", True
    )
    Engine = _Choice("auto", ("auto", "highs", "clarabel", "scip"), 'The engine; "auto" picks the one that fits.')
    EngineOptions = _Options("Options handed to the engine as they are, by the engine's own names.")

    def __init__(self) -> None:
        object.__setattr__(self, "_values", {})

    def __setattr__(self, name: str, value: Any) -> None:
        if name not in _NAMES:
            raise self._unknown(name)
        object.__setattr__(self, name, value)

    def __delattr__(self, name: str) -> None:
        if name not in _NAMES:
            raise self._unknown(name)
        object.__delattr__(self, name)

    def __getattr__(self, name: str) -> Any:
        raise self._unknown(name)

    def __copy__(self) -> Parameters:
        return self.replaced(EngineOptions=self.EngineOptions)

    def __deepcopy__(self, memo: object) -> Parameters:
        return self.__copy__()

    def __reduce__(self) -> Any:
        return _restored, (self._values,)

    def _unknown(self, name: str) -> AttributeError:
        from difflib import get_close_matches

        by_lower = {known.lower(): known for known in _NAMES}
        close = get_close_matches(name.lower(), by_lower, 1)
        hint = f"did you mean {by_lower[close[0]]}?" if close else f"there are {', '.join(_NAMES)}"
        return AttributeError(
            f"there is no parameter {name!r}; {hint}", obj=self
        )  # obj: tracebacks add no hint to ours

    def check_options(self) -> None:
        """EngineOptions is a dict that programs write to; what stands in it is checked before a solve."""
        type(self).EngineOptions.checked(self.EngineOptions)

    def reset(self) -> None:
        """All parameters back to their defaults."""
        self._values.clear()

    def replaced(self, **changes: Any) -> Parameters:
        """A copy with other values for some; this one stays as it is."""
        copy = Parameters()
        copy._values.update(self._values)
        for name, value in changes.items():
            setattr(copy, name, value)
        return copy

    def __iter__(self) -> Iterator[tuple[str, Any]]:
        return ((name, getattr(self, name)) for name in _NAMES)

    def __dir__(self) -> list[str]:
        return sorted({*super().__dir__(), *_NAMES})

    def __repr__(self) -> str:
        changed = ", ".join(
            f"{name}={value!r}" for name, value in self._values.items() if value or name != "EngineOptions"
        )
        return f"<Parameters {changed or 'all at their defaults'}>"


def _restored(values: dict[str, Any]) -> Parameters:
    return Parameters().replaced(**values)


_NAMES = tuple(name for name, entry in vars(Parameters).items() if isinstance(entry, _Parameter))
