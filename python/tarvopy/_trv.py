"""The constants of the package, as attributes of the class ``TRV``; the numbers are those of the store's interface."""


class _Error:
    """Codes of ``TarvoError``."""

    OUT_OF_MEMORY = 1
    INVALID_ARGUMENT = 2
    UNKNOWN_ATTRIBUTE = 3
    ATTRIBUTE_KIND = 4
    NO_DATA = 5
    NOT_IN_MODEL = 6
    SIZE_LIMIT = 7
    FILE = 8
    SYNTAX = 9
    UNSUPPORTED = 10
    CLOSED = 11


class TRV:
    """Senses, kinds of variables and of general constraints, statuses and error codes."""

    MINIMIZE = 1
    """Senses of an objective, the values of `ModelSense`."""
    MAXIMIZE = -1
    INFINITY = 1e20
    """Bounds and sides of this magnitude and more mean that there is none."""

    LESS_EQUAL = "<"
    """Senses of a row, the values of `Sense` and `QSense`."""
    GREATER_EQUAL = ">"
    EQUAL = "="

    CONTINUOUS = "C"
    """Kinds of variables, the values of `VType`."""
    BINARY = "B"
    INTEGER = "I"
    SEMICONT = "S"

    GEN_MAX = 0
    """Kinds of general constraints, the values of `GenType`."""
    GEN_MIN = 1
    GEN_ABS = 2
    GEN_AND = 3
    GEN_OR = 4
    GEN_PWL = 5
    GEN_INDICATOR = 6
    GEN_SOS1 = 7
    GEN_SOS2 = 8

    NOT_SOLVED = 0
    """How the last solve ended, the values of `Status`."""
    OPTIMAL = 1
    INFEASIBLE = 2
    UNBOUNDED = 3
    INFEASIBLE_OR_UNBOUNDED = 4
    TIME_LIMIT = 5
    ITERATION_LIMIT = 6
    NODE_LIMIT = 7
    SOLUTION_LIMIT = 8
    INTERRUPTED = 9
    IMPRECISE = 10
    """The engine says optimal, and the check of its answer says no: see `Model.report`."""
    FAILED = 11

    Error = _Error
    ERROR_OUT_OF_MEMORY = _Error.OUT_OF_MEMORY
    ERROR_INVALID_ARGUMENT = _Error.INVALID_ARGUMENT
    ERROR_UNKNOWN_ATTRIBUTE = _Error.UNKNOWN_ATTRIBUTE
    ERROR_ATTRIBUTE_KIND = _Error.ATTRIBUTE_KIND
    ERROR_NO_DATA = _Error.NO_DATA
    ERROR_NOT_IN_MODEL = _Error.NOT_IN_MODEL
    ERROR_SIZE_LIMIT = _Error.SIZE_LIMIT
    ERROR_FILE = _Error.FILE
    ERROR_SYNTAX = _Error.SYNTAX
    ERROR_UNSUPPORTED = _Error.UNSUPPORTED
    ERROR_CLOSED = _Error.CLOSED
