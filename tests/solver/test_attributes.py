"""Attributes by name: the table, reading and writing by id, sides and senses of rows, names."""

import itertools

import pytest

from solver.store import (
    ATTRIBUTE_KIND,
    CONSTR,
    GENCONSTR,
    INF,
    INVALID,
    NO_DATA,
    NOT_IN_MODEL,
    QCONSTR,
    UNKNOWN_ATTRIBUTE,
    VAR,
    Store,
    StoreError,
    lib,
)

NAN = float("nan")


@pytest.fixture
def store():
    m = Store()
    m.addvars(3, lb=[0.0, 1.0, 2.0], ub=9.0, vtype="CBI", names=("x", (3,)))
    m.addrows(
        [{0: 1.0}, {1: 1.0}, {2: 1.0}, {0: 1.0}, {1: 1.0}],
        lower=[-INF, 2.0, 3.0, 1.0, -INF],
        upper=[8.0, INF, 3.0, 5.0, INF],
    )
    m.update()
    return m


def refused(code, message, call):
    with pytest.raises(StoreError) as caught:
        call()
    assert (caught.value.code, str(caught.value)) == (code, message)


def test_every_attribute_is_found_by_its_name_alone():
    seen, i = set(), 0
    while info := lib.TRVattrat(i):
        name = info.contents.name
        assert lib.TRVfindattr(name).contents.name == name
        seen.add(name)
        i += 1
    assert len(seen) == i == 41
    assert not lib.TRVfindattr(b"lb")
    assert not lib.TRVfindattr(b"")


@pytest.mark.parametrize(
    ("code", "message", "call"),
    [
        (UNKNOWN_ATTRIBUTE, "there is no attribute 'Foo'", lambda m: m.dbls("Foo", [0])),
        (ATTRIBUTE_KIND, "VType is an attribute of type character, not double", lambda m: m.dbls("VType", [0])),
        (ATTRIBUTE_KIND, "NumVars is an attribute of the model, not of elements", lambda m: m.dbls("NumVars", [0])),
        (ATTRIBUTE_KIND, "LB is an attribute of variables, not of the model", lambda m: m.dbl("LB")),
        (ATTRIBUTE_KIND, "X cannot be set", lambda m: m.setdbls("X", [0], 1.0)),
        (NOT_IN_MODEL, "QRHS: the model has no quadratic row with id 0", lambda m: m.dbls("QRHS", [0])),
        (NOT_IN_MODEL, "LB: the model has no variable with id 3", lambda m: m.dbls("LB", [0, 3])),
        (NOT_IN_MODEL, "UB: the model has no variable with id 3", lambda m: m.dbls("UB", range(2, 4))),
        (NOT_IN_MODEL, "VType: the model has no variable with id -1", lambda m: m.chars("VType", range(-1, 2))),
        (
            NO_DATA,
            "ObjVal: the model has no solution yet (Status NOT_SOLVED); call optimize() first",
            lambda m: m.dbl("ObjVal"),
        ),
    ],
)
def test_wrong_requests_say_what_is_wrong(store, code, message, call):
    refused(code, message, lambda: call(store))


def test_counts_are_those_of_the_model(store):
    assert [store.int(f"Num{kind}Constrs") for kind in ("", "Q", "Gen", "NL")] == [5, 0, 0, 0]
    assert [store.idcount(kind) for kind in (VAR, CONSTR, QCONSTR, GENCONSTR)] == [3, 5, 0, 0]


def test_writes_act_at_once_also_on_pending_elements(store):
    v = store.addvars(1)
    store.setdbls("LB", [v, 0], [3.0, -4.0])
    store.setdbls("UB", range(2), 1e30)
    store.setchars("VType", [v], "I")
    assert store.dbls("LB", [0, v]).tolist() == [-4.0, 3.0]
    assert store.dbls("UB", range(4)).tolist() == [INF, 1.0, 9.0, INF]
    assert store.chars("VType", range(4)) == "CBII"
    assert store.int("NumVars") == 3


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda m: m.setdbls("LB", [0, 2], [5.0, NAN]), "LB of the variable x[2] is nan"),
        (lambda m: m.setdbls("UB", [0, 2], [5.0, -INF]), "UB of the variable x[2] is -inf: no value meets it"),
        (lambda m: m.setdbls("Obj", [0, 2], [5.0, INF]), "Obj of the variable x[2] is inf: it must be finite"),
        (lambda m: m.setdbls("Start", [0, 2], [5.0, INF]), "Start of the variable x[2] is inf: it must be finite"),
        (lambda m: m.setdbls("RHS", [0, 2], [5.0, INF]), "RHS of the row R2 is inf: no value meets it"),
        (lambda m: m.setdbls("RHS", [0, 1], [5.0, 1e20]), "RHS of the row R1 is 1e+20: no value meets it"),
        (lambda m: m.setdbls("Lower", [0, 2], [5.0, INF]), "Lower of the row R2 is inf: no value meets it"),
        (
            lambda m: m.setchars("VType", [0, 2], "IZ"),
            "VType of the variable x[2] is 'Z', not one of 'C', 'B', 'I', 'S'",
        ),
        (lambda m: m.setchars("Sense", [0, 2], ">x"), "Sense of the row R2 is 'x', not one of '<', '>', '='"),
        (
            lambda m: m.setchars("Sense", [0], "R"),
            "Sense of the row R0 is 'R', not one of '<', '>', '=': set Lower and Upper to make a row two-sided",
        ),
        (
            lambda m: m.setchars("Sense", [0, 4], "=="),
            "Sense of the row R4: a row without a right-hand side cannot become an equation; set RHS",
        ),
    ],
)
def test_bad_values_leave_all_elements_as_they_were(store, call, message):
    def everything():
        return (
            [store.dbls(a, range(3)).tolist() for a in ("LB", "UB", "Obj")],
            [store.dbls(a, range(5)).tolist() for a in ("Lower", "Upper", "RHS")],
            store.chars("VType", range(3)) + store.chars("Sense", range(5)),
        )

    before = everything()
    refused(INVALID, message, lambda: call(store))
    assert everything() == before
    assert store.data()["start"] is None or all(s != s for s in store.data()["start"])


def test_removed_elements_have_no_attributes(store):
    pending = store.addvars(1)
    store.remove(VAR, [pending, 1])
    refused(NOT_IN_MODEL, "LB: the variable C3 was removed from the model", lambda: store.dbls("LB", [pending]))
    assert store.dbls("LB", [1]).tolist() == [1.0]  # until the update
    store.update()
    refused(NOT_IN_MODEL, "LB: the variable x[1] was removed from the model", lambda: store.setdbls("LB", [0, 1], 7.0))
    assert store.dbls("LB", [0, 2]).tolist() == [0.0, 2.0]
    assert store.strs("VarName", [0, 2]) == ["x[0]", "x[2]"]
    store.remove(VAR, [1, pending])  # again is fine
    refused(NOT_IN_MODEL, "remove: the model has no variable with id 9", lambda: store.remove(VAR, [0, 9]))
    assert store.positions(VAR, [0]) == [0]


@pytest.mark.parametrize("removed", [(), (0,), (3,), (2, 3, 6), (7,), (3, 9)])
def test_ranges_of_ids_read_as_their_elements_do(removed):
    m = Store()
    m.addvars(8, lb=range(8))
    m.update()
    m.remove(VAR, [i for i in removed if i < 8])
    m.update()
    m.addvars(3, lb=[8.0, 9.0, 10.0])
    m.remove(VAR, [i for i in removed if i >= 8])
    here = [i for i in range(8) if i not in removed]
    m.solved([10.0 * i for i in here])

    def read(attribute, ids):
        try:
            return m.dbls(attribute, ids).tolist()
        except StoreError as error:
            return error.code, str(error)

    for first, last in itertools.combinations_with_replacement(range(-1, 12), 2):
        ids = range(first, last)
        assert read("LB", ids) == read("LB", list(ids))
        assert read("X", ids) == read("X", list(ids))
        if set(ids) <= {*here, 8, 9, 10} - {*removed}:
            assert read("LB", ids) == list(ids)
        else:
            assert read("LB", ids)[0] == NOT_IN_MODEL
        if set(ids) <= set(here):
            assert read("X", ids) == [10.0 * i for i in ids]
        else:
            assert read("X", ids)[0] in (NOT_IN_MODEL, NO_DATA)


def test_binaries_keep_their_bounds_within_zero_and_one(store):
    store.setdbls("LB", [1], -3.0)
    store.setdbls("UB", [1], 7.0)
    store.setchars("VType", [2], "B")
    assert store.dbls("LB", [1, 2]).tolist() == [0.0, 2.0]  # 2 <= x <= 1: infeasible, found at the solve
    assert store.dbls("UB", [1, 2]).tolist() == [1.0, 1.0]


# ---- sides and senses ----------------------------------------------------------------------------------------------


def row(store, i):
    low, up, rhs = (store.dbls(a, [i])[0] for a in ("Lower", "Upper", "RHS"))
    return low, up, rhs, store.chars("Sense", [i])


def test_rows_show_right_hand_side_and_sense(store):
    assert [row(store, i) for i in range(5)] == [
        (-INF, 8.0, 8.0, "<"),
        (2.0, INF, 2.0, ">"),
        (3.0, 3.0, 3.0, "="),
        (1.0, 5.0, 5.0, "R"),
        (-INF, INF, INF, "<"),
    ]


def test_setting_the_right_hand_side_keeps_the_sense(store):
    store.setdbls("RHS", range(5), [80.0, 20.0, 30.0, 50.0, 7.0])
    assert [row(store, i) for i in range(5)] == [
        (-INF, 80.0, 80.0, "<"),
        (20.0, INF, 20.0, ">"),
        (30.0, 30.0, 30.0, "="),
        (1.0, 50.0, 50.0, "R"),
        (-INF, 7.0, 7.0, "<"),
    ]


def test_rows_lose_and_regain_sides(store):
    store.setdbls("RHS", [0, 1, 3], [INF, -INF, INF])
    assert [row(store, i) for i in (0, 1, 3)] == [(-INF, INF, INF, "<"), (-INF, INF, -INF, ">"), (1.0, INF, 1.0, ">")]
    store.setdbls("RHS", [0, 1, 3], 4.0)
    assert [row(store, i) for i in (0, 1, 3)] == [(-INF, 4.0, 4.0, "<"), (4.0, INF, 4.0, ">"), (4.0, INF, 4.0, ">")]


def test_setting_sides_decides_the_sense(store):
    store.setdbls("Lower", range(5), [1.0, -INF, 2.0, 5.0, 0.0])
    assert [row(store, i) for i in range(5)] == [
        (1.0, 8.0, 8.0, "R"),
        (-INF, INF, INF, "<"),
        (2.0, 3.0, 3.0, "R"),
        (5.0, 5.0, 5.0, "="),
        (0.0, INF, 0.0, ">"),
    ]


def test_setting_the_sense_keeps_the_right_hand_side(store):
    store.setchars("Sense", range(5), ">=<>>")
    assert [row(store, i) for i in range(5)] == [
        (8.0, INF, 8.0, ">"),
        (2.0, 2.0, 2.0, "="),
        (-INF, 3.0, 3.0, "<"),
        (5.0, INF, 5.0, ">"),
        (-INF, INF, -INF, ">"),
    ]


# ---- names ---------------------------------------------------------------------------------------------------------


def test_names_of_all_forms():
    m = Store()
    m.addvars(6, names=("x", (2, 3)))
    m.addvars(1, names=("y", ()))
    m.addvars(2)
    m.addvars(3, names=["a", "", "ä b"])
    m.addvars(2, names=("", (2,)))
    for name in ("u", "v"):
        m.addvars(1, names=(name, ()))
    assert m.strs("VarName", range(16)) == [
        *(
            "x[0,0]",
            "x[0,1]",
            "x[0,2]",
            "x[1,0]",
            "x[1,1]",
            "x[1,2]",
            "y",
            "C7",
            "C8",
            "a",
            "C10",
            "ä b",
            "C12",
            "C13",
            "u",
            "v",
        )
    ]
    m.addrows([{}, {}], names=("cap", (2, 1)))
    m.addrows([{}])
    assert m.strs("ConstrName", [2, 0, 1]) == ["R2", "cap[0,0]", "cap[1,0]"]


def test_renaming_single_elements():
    m = Store()
    m.addvars(4, names=("x", (4,)))
    m.setstrs("VarName", [1, 3], ["one", ""])
    assert m.strs("VarName", range(4)) == ["x[0]", "one", "x[2]", "C3"]
    assert [m.findname(VAR, n) for n in ("x[1]", "one", "C3", "x[2]", "nobody")] == [-1, 1, 3, 2, -1]


def test_names_are_found_as_the_model_changes():
    m = Store()
    m.addvars(40, names=("x", (40,)))
    assert m.findname(VAR, "x[39]") == 39
    m.addvars(1000, names=("x", (1000,)))
    assert [m.findname(VAR, n) for n in ("x[5]", "x[999]", "C3", "")] == [5, 1039, -1, -1]  # of equal names the first
    m.update()
    m.remove(VAR, [5, 1039])
    assert m.findname(VAR, "x[5]") == 5  # until the update
    m.update()
    assert [m.findname(VAR, n) for n in ("x[5]", "x[999]")] == [45, -1]
    v = m.addvars(1, names=["z"])
    assert m.findname(VAR, "z") == v
    m.remove(VAR, [v])
    assert m.findname(VAR, "z") == -1
    assert m.findname(CONSTR, "x[0]") == -1
