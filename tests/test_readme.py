"""The README's example runs and prints what its comments say."""

import re
from pathlib import Path

import numpy as np

README = Path(__file__).resolve().parents[1] / "README.md"


def test_example_gives_what_it_says():
    code = re.search(r"```python\n(.*?)```", README.read_text(), re.DOTALL).group(1)
    names = {}
    exec(code.replace("print(", "str("), names)
    stated = float(re.search(r"print\(m\.ObjVal\)\s+# (\S+)", code).group(1))
    assert names["m"].ObjVal == stated
    assert names["ship"].X.shape == (2, 3)
    np.testing.assert_allclose(names["ship"].X.sum(axis=0), names["demand"])
    assert names["need"].Pi.shape == (3,)
