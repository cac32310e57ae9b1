"""Checks that a wheel holds all that an installed package needs: check_wheel.py FILE.whl."""

import re
import sys
import zipfile

WANTED = (
    r"tarvopy/__init__\.py",
    r"tarvopy/py\.typed",
    r"tarvopy/libtarvo140\.so",
    *(
        rf"tarvopy/{name}\.cpython-313-.*\.so"
        for name in ("_core", "_util", "_attrutil", "_matrixapi", "_modelapi", "_highs")
    ),
    r"tarvopy/_core\.pyi",
    r"tarvopy/_matrixapi\.pyi",
    r"tarvopy-.*\.dist-info/licenses/LICENSE",
)


def faults(names: list[str]) -> list[str]:
    """What is missing, and what stands outside the package and does not belong there."""
    missing = [f"missing: {want}" for want in WANTED if not any(re.fullmatch(want, name) for name in names)]
    stray = [f"stray: {name}" for name in names if not re.match(r"tarvopy(-[^/]*\.dist-info)?/", name)]
    return missing + stray


if __name__ == "__main__":
    found = faults(zipfile.ZipFile(sys.argv[1]).namelist())
    print("\n".join(found) if found else f"{sys.argv[1]}: complete")
    sys.exit(bool(found))
