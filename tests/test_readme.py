"""The README's examples run and print what their comments say."""

import re
from pathlib import Path

import numpy as np
import pytest

README = Path(__file__).resolve().parents[1] / "README.md"


@pytest.fixture(scope="module")
def examples():
    """What the examples print, as (text, what the comment beside it states), and the names they leave."""
    names, printed = {}, []
    for code in re.findall(r"```python\n(.*?)```", README.read_text(), re.DOTALL):
        stated = iter(re.findall(r"^print\(.*\)  # (.*)$", code, re.MULTILINE))
        names["print"] = lambda value, stated=stated: printed.append((str(value), next(stated)))
        exec(code, names)
    return names, printed


def test_examples_print_what_their_comments_say(examples):
    _, printed = examples
    numbers = [(float(text), float(number.group())) for text, comment in printed if (number := leading_number(comment))]
    assert len(numbers) == 4
    for value, stated in numbers:
        assert value == pytest.approx(stated, rel=1e-4)
    assert [text for text, comment in printed if comment.startswith("Clarabel")] == [printed[-2][1]]


def leading_number(comment):
    return re.match(r"[0-9.]+(?=$|:)", comment)


def test_examples_leave_what_they_say(examples):
    names, _ = examples
    assert names["ship"].X.shape == (2, 3)
    np.testing.assert_allclose(names["ship"].X.sum(axis=0), names["demand"])
    assert names["need"].Pi.shape == (3,)
    share, covariance = names["share"].X, names["covariance"]
    assert share @ covariance @ share == pytest.approx(5.0, rel=1e-6)
    assert names["answer"].holds
