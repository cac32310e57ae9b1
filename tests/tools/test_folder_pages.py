"""The page of each folder names every file that lives there, and nothing that does not."""

import re
from fnmatch import fnmatch
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
PAGES = sorted(ROOT.glob("[a-z]*/README.md")) + sorted(ROOT.glob("python/**/README.md"))
SOURCES = {".cpp", ".h", ".py", ".pyi", ""}


def live_in(folder):
    """Names relative to the folder, a subfolder with a slash behind it. A folder `src` counts as the folder itself."""
    for path in sorted(folder.iterdir()):
        if path.is_dir() and path.name == "src":
            yield from live_in(path)
        elif path.is_dir() and path.name not in {"__pycache__", "include"}:
            yield path.name + "/"
        elif path.is_file() and path.suffix in SOURCES and path.name not in {"__init__.py", "__init__.pyi"}:
            yield path.name


@pytest.mark.parametrize("page", PAGES, ids=lambda page: str(page.parent.relative_to(ROOT)))
def test_page_names_every_file(page):
    lists = [line.split("|")[-2] for line in page.read_text().splitlines() if line.startswith("|")]
    named = [name for name in re.findall(r"`([^`]+)`", "".join(lists)) if not name.startswith("__init__")]
    files = list(live_in(page.parent))
    assert [file for file in files if not any(fnmatch(file, name) for name in named)] == []
    assert [name for name in named if not any(fnmatch(file, name) for file in files)] == []


def test_every_component_has_a_page():
    assert {page.parent.name for page in PAGES} >= {
        *("attrutil", "benchmarks", "collaborators", "core", "examples", "highs", "matrixapi", "modelapi"),
        *("pysupport", "solver", "tarvopy", "engines", "tests", "tools", "util"),
    }
