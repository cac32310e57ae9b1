"""The examples of the README and of the pages in docs/ run and print what their comments say.

The Python blocks of a page are one program. Behind a print, a comment that begins with a number, numbers in brackets, a
shape, True, False, an element, terms, an engine or <...> states what is printed; text behind a colon, and any other
comment, is for the reader. A block below `<!-- not run: REASON -->` is left out.
"""

import functools
import re
from pathlib import Path

import numpy as np
import pytest

import tarvopy

ROOT = Path(__file__).resolve().parents[1]
#: page -> how many of its comments state what is printed
PAGES = {
    "README.md": 8,
    "docs/answers.md": 5,
    "docs/api/parameters.md": 1,
    "docs/arrays.md": 21,
    "docs/nonlinear.md": 2,
    "docs/performance.md": 1,
    "docs/quadratics.md": 9,
    "docs/sparse.md": 9,
    "docs/tutorial.md": 21,
}
BLOCK = re.compile(r"(?:^<!-- not run: \S[^\n]* -->\n+)?^```python\n(.*?)^```", re.DOTALL | re.MULTILINE)
PRINT = re.compile(r"^( *)print\((.*?)\)(?:  # (.*))?$", re.MULTILINE)
NUMBER = r"-?(?:inf|\d[-\d.e]*)"
NUMBERS = re.compile(rf"({NUMBER}|\[(?:{NUMBER}(?:, )?)*\])(?=$|:)")
TEXT = re.compile(r"(?:\([\d, ]*\)|True|False|<.*>|\w+\[[\d,]+\]|-?\d+\.\d [^:]*)(?=$|:)|(?:HiGHS|Clarabel|SCIP): .*")


@functools.cache
def run(page):
    """What a page's prints get, as (value, the comment beside it or ""), and the names that its program leaves."""
    names, printed = {"printed": lambda comment, *values: printed.append((values[0], comment))}, []
    for block in BLOCK.finditer((ROOT / page).read_text()):
        if not block.group().startswith("<!--"):
            recorded = PRINT.sub(lambda line: f"{line[1]}printed({line[3] or ''!r}, {line[2]})", block[1])
            exec(compile(recorded, page, "exec"), names)
    return names, printed


def check(value, comment):
    """Whether the comment states what is printed; if so, it is that."""
    if stated := NUMBERS.match(comment):
        wanted = [float(number) for number in re.findall(NUMBER, stated[1])]
        assert np.ravel(value) == pytest.approx(wanted, rel=1e-4, abs=1e-6), comment
    elif stated := TEXT.match(comment):
        assert str(value) == stated[0]
    return bool(stated)


def test_every_page_with_examples_is_run():
    pages = [ROOT / "README.md", *(ROOT / "docs").rglob("*.md")]
    assert {str(page.relative_to(ROOT)) for page in pages if BLOCK.search(page.read_text())} == set(PAGES)


@pytest.mark.parametrize("page", PAGES)
def test_examples_print_what_their_comments_say(page):
    _, printed = run(page)
    assert sum(check(value, comment) for value, comment in printed) == PAGES[page]


def test_links_of_the_readme_lead_to_files():
    targets = re.findall(r"\]\(([^)#:]+)\)", (ROOT / "README.md").read_text())
    assert len(targets) > 10
    assert [target for target in targets if not (ROOT / target).is_file()] == []


def test_the_api_pages_have_every_public_name():
    pages = "".join(page.read_text() for page in (ROOT / "docs" / "api").glob("*.md"))
    described = re.findall(r"^\.\. (?:auto\w+|py:data):: tarvopy\.(\w+)(?:\(.*\))?$", pages, re.MULTILINE)
    assert sorted(described) == sorted(tarvopy.__all__)
    members = re.findall(r"^\.\. auto\w+:: tarvopy\.Model\.(\w+)$", pages, re.MULTILINE)
    assert sorted(members) == [name for name in dir(tarvopy.Model) if not name.startswith("_")]


def test_the_page_of_attributes_has_them_all():
    page = (ROOT / "docs" / "api" / "attributes.md").read_text()
    listed = {name for row in re.findall(r"^\| (`.*?`) \|", page, re.MULTILINE) for name in re.findall(r"`(\w+)`", row)}
    m = tarvopy.Model()
    x = m.addVar(vtype="B")
    rows = [m.addConstr(row) for row in (x <= 1, x * x <= 1, tarvopy.nlfunc.exp(x) <= 3, x == tarvopy.genfunc.abs(x))]
    stored = {name for handle in [x, *rows] for name in dir(handle) if name[0].isupper()}
    assert listed == stored | set(m._attributes())


def test_examples_leave_what_they_say():
    names, _ = run("README.md")
    assert names["ship"].X.shape == (2, 3)
    np.testing.assert_allclose(names["ship"].X.sum(axis=0), names["demand"])
    assert names["need"].Pi.shape == (3,)
    share, covariance = names["share"].X, names["covariance"]
    assert share @ covariance @ share == pytest.approx(5.0, rel=1e-6)
    assert names["answer"].holds
