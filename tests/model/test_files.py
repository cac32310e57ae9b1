"""Files through the model: by ending, by kind of path, and refused as a whole."""

from pathlib import Path

import pytest

import tarvopy
from model_arrays import arrays, shape_of
from tarvopy import TRV, NoDataError, TarvoError


def small():
    m = tarvopy.Model("small")
    x = [m.addVar(ub=ub, vtype=vtype, name=f"x[{i}]") for i, (ub, vtype) in enumerate([(1, "B"), (5, "I"), (2, "C")])]
    m.addConstr(x[0] + x[1] + x[2] <= 4, name="cap")
    m.addRange(x[0] - x[2], -1, 1, name="range")
    m.setObjective(x[0] + 2 * x[1] + 3 * x[2] + 2, TRV.MAXIMIZE)
    return m


@pytest.mark.parametrize("ending", [".mps", ".lp", ".lp.gz"])
@pytest.mark.parametrize("kind", [str, Path, lambda p: str(p).encode()], ids=["str", "Path", "bytes"])
def test_what_was_written_is_read_back(tmp_path, ending, kind):
    m = small()
    path = kind(tmp_path / f"modèle{ending}")
    m.write(path)
    back = tarvopy.read(path)
    first, second = arrays(m), arrays(back)
    for name in ("lb", "ub", "obj", "lower", "upper", "A"):
        assert (getattr(first, name) == getattr(second, name)).all(), name
    assert (first.vtype, first.constant, first.sense) == (second.vtype, second.constant, second.sense)
    assert [str(v) for v in back.getVars()] == ["x[0]", "x[1]", "x[2]"]
    assert [str(c) for c in back.getConstrs()] == ["cap", "range"]
    assert all(v.index >= 0 for v in back.getVars())


def test_refused_files_leave_the_model_as_it_was(tmp_path):
    damaged = tmp_path / "damaged.mps"
    damaged.write_text("NAME x\nROWS\n Q nonsense\n")
    m = tarvopy.Model()
    with pytest.raises(TarvoError, match="line 3") as caught:
        m.read(damaged)
    assert caught.value.code == TRV.Error.SYNTAX
    with pytest.raises(TarvoError) as caught:
        m.read(tmp_path / "missing.mps")
    assert caught.value.code == TRV.Error.FILE
    assert shape_of(m) == (0, 0, 0)
    m.addVar()
    small().write(tmp_path / "good.mps")
    with pytest.raises(TarvoError, match="empty"):
        m.read(tmp_path / "good.mps")
    assert shape_of(m) == (1, 0, 0)


def test_other_paths_and_endings_are_refused(tmp_path):
    m = small()
    for bad in (None, 3, 1.5):
        with pytest.raises(TypeError):
            m.write(bad)
    with pytest.raises(ValueError, match="null"):
        m.write("a\0.mps")
    with pytest.raises(TarvoError, match="ending"):
        m.write(tmp_path / "model.txt")
    with pytest.raises(TarvoError):
        m.write(tmp_path / "no folder" / "model.mps")
    with pytest.raises(NoDataError):
        m.write(tmp_path / "model.sol")
    with pytest.raises(ValueError, match=r"Model\.read"):
        tarvopy.read("model.sol")


def test_a_solution_file_is_read_into_Start(tmp_path):
    m = small()
    (tmp_path / "model.sol").write_text("# by hand\nx[0] 1\nx[2] 0.5\n")
    m.update()
    m.read(tmp_path / "model.sol")
    assert [str(v.Start) for v in m.getVars()] == ["1.0", "nan", "0.5"]


def test_quadratic_models_go_through_either_format(tmp_path):
    m = tarvopy.Model()
    x, y = m.addVar(name="x"), m.addVar(name="y")
    m.setObjective(x * x - 3 * x * y + y)
    m.addConstr(x * y + 2 * x <= 4, name="q")
    for ending in ("lp", "qps"):
        m.write(tmp_path / f"m.{ending}")
        back = tarvopy.read(tmp_path / f"m.{ending}")
        assert (back.NumQConstrs, back.NumConstrs) == (1, 0)
        (q,) = back.getQConstrs()
        assert (q.QName, q.QSense, q.QRHS) == ("q", "<", 4.0)
        assert (back.NumVars, back.getVars()[0].VarName) == (2, "x")
