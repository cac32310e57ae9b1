"""Mathematical optimisation on arrays."""

__version__ = "0.1.0"
