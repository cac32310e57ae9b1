"""Models for tests that solve: without a word, and with a limit, so that an engine that does not end fails its test."""

import tarvopy


def silent(**params):
    """A model with these parameters."""
    m = tarvopy.Model()
    for name, value in ({"LogLevel": 0, "TimeLimit": 30} | params).items():
        setattr(m.params, name, value)
    return m
