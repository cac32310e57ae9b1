"""The empty model that the tests of this folder begin with."""

import pytest

import tarvopy


@pytest.fixture
def m():
    model = tarvopy.Model()
    yield model
    model.close()
