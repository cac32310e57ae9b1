"""Links the package's Python sources into a build folder, beside the compiled modules.

Usage: link_sources.py SOURCE TARGET
"""

import sys
from pathlib import Path


def link(source: Path, target: Path) -> None:
    target.mkdir(parents=True, exist_ok=True)
    for old in target.iterdir():
        if old.is_symlink() and not old.exists():
            old.unlink()
    for path in source.iterdir():
        place = target / path.name
        if path.name != "__pycache__" and not place.exists():
            place.symlink_to(path.resolve())


if __name__ == "__main__":
    link(Path(sys.argv[1]), Path(sys.argv[2]))
