"""The exceptions of the package.

``TarvoError`` is raised for refusals that concern a model or the rules of modelling. Wrong Python types and shapes
raise Python's own exceptions.
"""


class TarvoError(Exception):
    """An operation on a model was refused.

    ``code`` is a constant of ``TRV.Error`` (or -1 or 0), ``message`` says what was wrong; ``str()`` is the message.
    """

    def __init__(self, code: int = 0, message: str = "") -> None:
        super().__init__(code, message)
        self.code = code
        self.message = message

    def __str__(self) -> str:
        return str(self.message)


class NoDataError(TarvoError, AttributeError):
    """An attribute that is not there yet, for instance ``X`` before a solve.

    An ``AttributeError`` too, so that ``hasattr`` says no.
    """
