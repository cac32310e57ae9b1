"""What `make` checks before it builds: a usable Python among broken ones, and how to get what is missing."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]


def run(tool, path, *arguments, **environment):
    return subprocess.run(
        [ROOT / "tools" / tool, *arguments],
        env={"PATH": str(path), "HOME": "/nonexistent", **environment},
        capture_output=True,
        text=True,
    )


@pytest.fixture
def bin_folder(tmp_path):
    """A PATH with the few commands that the scripts use and nothing else."""
    for name in ("sh", "cat", "dirname"):
        (tmp_path / name).symlink_to(f"/bin/{name}" if os.path.exists(f"/bin/{name}") else f"/usr/bin/{name}")
    return tmp_path


def broken(folder, name):
    script = folder / name
    script.write_text("#!/bin/sh\necho 'version 3.13 is not installed' >&2\nexit 127\n")
    script.chmod(0o755)


def test_python_that_refuses_to_run_is_passed_over(bin_folder):
    broken(bin_folder, "python3.13")
    (bin_folder / "python3").symlink_to(sys.executable)
    found = run("find_python", bin_folder)
    assert found.returncode == 0, found.stderr
    assert Path(found.stdout.strip()).exists()


def test_missing_python_names_what_was_tried_and_how_to_get_it(bin_folder):
    broken(bin_folder, "python3.13")
    found = run("find_python", bin_folder, "python3.13", "python")
    assert found.returncode == 1
    assert found.stdout == ""
    assert "python3.13" in found.stderr.splitlines()[1]
    assert "pyenv install 3.13" in found.stderr


def test_missing_compiler_is_said_first(bin_folder):
    found = run("check_prerequisites", bin_folder, PYTHON=sys.executable)
    assert found.returncode == 1
    assert found.stdout == ""
    assert "apt install g++" in found.stderr


def test_missing_zlib_header_is_named(bin_folder):
    compiler = bin_folder / "g++"
    compiler.write_text("#!/bin/sh\ncase $(cat) in *zlib.h*) exit 1;; esac\n")
    compiler.chmod(0o755)
    found = run("check_prerequisites", bin_folder, PYTHON=sys.executable)
    assert found.returncode == 1
    assert "zlib1g-dev" in found.stderr
    assert "compiler is missing" not in found.stderr
