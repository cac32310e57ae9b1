"""The examples of the README and of the pages beside it run and print what their comments say."""

import re
from pathlib import Path

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[1]
#: page -> how many numbers and engines its comments state
PAGES = {"README.md": (6, 2), "docs/nonlinear.md": (2, 0)}
ENGINES = ("HiGHS: ", "Clarabel: ", "SCIP: ")


def run(page):
    """What a page's examples print, as (text, what the comment beside it states), and the names they leave."""
    names, printed = {}, []
    for code in re.findall(r"```python\n(.*?)```", (ROOT / page).read_text(), re.DOTALL):
        stated = iter(re.findall(r"^print\(.*\)  # (.*)$", code, re.MULTILINE))
        names["print"] = lambda value, stated=stated: printed.append((str(value), next(stated)))
        exec(code, names)
    return names, printed


@pytest.fixture(scope="module")
def examples():
    return {page: run(page) for page in PAGES}


@pytest.mark.parametrize("page", PAGES)
def test_examples_print_what_their_comments_say(examples, page):
    _, printed = examples[page]
    numbers = [(float(text), float(number.group())) for text, comment in printed if (number := leading_number(comment))]
    engines = [(text, comment) for text, comment in printed if comment.startswith(ENGINES)]
    assert (len(numbers), len(engines)) == PAGES[page]
    for value, stated in numbers:
        assert value == pytest.approx(stated, rel=1e-4)
    for text, comment in engines:
        assert text == comment


def leading_number(comment):
    return re.match(r"[0-9.]+(?=$|:)", comment)


def test_examples_leave_what_they_say(examples):
    names, _ = examples["README.md"]
    assert names["ship"].X.shape == (2, 3)
    np.testing.assert_allclose(names["ship"].X.sum(axis=0), names["demand"])
    assert names["need"].Pi.shape == (3,)
    share, covariance = names["share"].X, names["covariance"]
    assert share @ covariance @ share == pytest.approx(5.0, rel=1e-6)
    assert names["answer"].holds
