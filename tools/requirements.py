"""Prints requirements that pyproject.toml states, one a line: requirements.py [build] [EXTRA ...], or
requirements.py --group GROUP.

`build` stands for the build requirements, with CMake and Ninja, which the build back end would only fetch in an
isolated build; the runtime dependencies always come along, and every other word names an extra. A dependency
group comes alone.
"""

import sys
import tomllib
from pathlib import Path

PYPROJECT = Path(__file__).resolve().parent.parent / "pyproject.toml"


def requirements(settings: dict, groups: list[str]) -> list[str]:
    project, tool = settings["project"], settings["tool"]["scikit-build"]
    lines = list(project["dependencies"])
    for group in groups:
        if group == "build":
            lines += settings["build-system"]["requires"]
            lines += [f"cmake{tool['cmake']['version']}", f"ninja{tool['ninja']['version']}"]
        else:
            lines += project["optional-dependencies"][group]
    return list(dict.fromkeys(lines))


if __name__ == "__main__":
    settings, words = tomllib.loads(PYPROJECT.read_text()), sys.argv[1:]
    lines = settings["dependency-groups"][words[1]] if words[:1] == ["--group"] else requirements(settings, words)
    print("\n".join(lines))
