"""Which quadratic parts count as convex, against eigenvalues; and the cones of rows, against sampled points."""

import numpy as np
import pytest

from solver.store import INF, Store, StoreError

LINEAR, CONVEX, CONE, NONCONVEX, ROUNDED = range(5)


def terms(matrix, eps=0.0):
    """x'Qx as (i, j, coefficient)."""
    return [(i, j, v) for (i, j), v in np.ndenumerate(matrix) if abs(v) > eps]


def objective_curve(matrix, sense=1):
    m = Store()
    m.addvars(len(matrix))
    m.setqobjective([], terms(matrix), sense=sense)
    m.update()
    return m.curvature()[0]


def row_store(nvars, quadratic, linear=(), sense="<", rhs=1.0, lb=-INF, ub=INF):
    m = Store()
    m.addvars(nvars, lb=lb, ub=ub)
    m.addqrows([(list(linear), quadratic)], sense, rhs, names=["cap"])
    m.update()
    return m


def sparse_symmetric(rng, n, density):
    q = rng.standard_normal((n, n)) * (rng.random((n, n)) < density)
    return q + q.T


# ---- the question


@pytest.mark.parametrize("n", [2, 3, 9, 40, 150])
@pytest.mark.parametrize("density", [0.05, 0.3, 1.0])
def test_answers_agree_with_eigenvalues_of_the_unit_diagonal(n, density):
    rng = np.random.default_rng([n, int(100 * density)])
    for least in (1e-5, -1e-5):
        q = sparse_symmetric(rng, n, density)
        np.fill_diagonal(q, 1.0)
        # Moves the smallest eigenvalue of the unit diagonal where it is wanted, then scales variables wildly.
        q = q - np.eye(n)
        q = np.eye(n) + q * (1.0 - least) / max(-np.linalg.eigvalsh(q)[0], 1e-3)
        if np.linalg.eigvalsh(q)[0] > 1e-3 and least < 0:
            continue  # no off-diagonal entries
        scale = 10.0 ** rng.uniform(-4, 4, n)
        q = q * scale * scale[:, None]
        assert objective_curve(q) == (CONVEX if least > 0 else NONCONVEX)
        assert objective_curve(-q, sense=-1) == (CONVEX if least > 0 else NONCONVEX)


@pytest.mark.parametrize(("n", "k"), [(5, 1), (60, 3), (300, 20)])
def test_low_rank_is_convex_and_the_least_bit_less_is_not(n, k):
    rng = np.random.default_rng(n)
    f = rng.standard_normal((n, k)) * 10.0 ** rng.uniform(-3, 3, (n, 1))
    q = f @ f.T
    assert objective_curve(q) == CONVEX
    assert objective_curve(q - 1e-6 * np.diag(np.diag(q))) == NONCONVEX


def test_a_small_negative_eigenvalue_next_to_large_ones():
    rng = np.random.default_rng(7)
    basis = np.linalg.qr(rng.standard_normal((80, 80)))[0]
    for small, answer in ((-1e-3, NONCONVEX), (0.0, CONVEX), (1e-3, CONVEX)):
        eigenvalues = np.append(np.full(79, 1e3), small)
        assert objective_curve(basis @ np.diag(eigenvalues) @ basis.T) == answer


def test_the_threshold_lies_between_rounding_and_intention():
    n = 12
    flat = np.full((n, n), 1.0)  # rank one, eigenvalues n and 0
    assert objective_curve(flat - 3e-9 * np.eye(n)) == CONVEX
    assert objective_curve(flat - 3e-8 * np.eye(n)) == NONCONVEX


def test_coefficients_that_were_rounded_are_convex_but_for_that():
    rng = np.random.default_rng(3)
    f = rng.standard_normal((60, 20))
    f /= np.linalg.norm(f, axis=1)[:, None]
    rounded = np.round(f @ f.T, 6)
    np.fill_diagonal(rounded, 1.0)
    assert np.linalg.eigvalsh(rounded)[0] < -1e-7
    assert objective_curve(rounded) == ROUNDED
    assert objective_curve(-1e3 * rounded, sense=-1) == ROUNDED
    # Beyond the rounding, without a common last digit, or with digits that are no rounding: as it stands.
    for error in (5e-5, np.pi * 1e-6):
        assert objective_curve(rounded - error * np.eye(60)) == NONCONVEX
    assert objective_curve(np.array([[1.0, 1.1], [1.1, 1.0]])) == NONCONVEX
    assert objective_curve(np.array([[1.0, 1.0001], [1.0001, 1.0]])) == NONCONVEX
    assert row_store(60, terms(rounded)).curvature()[1] == [NONCONVEX]


def test_components_are_judged_each_on_its_own_scale():
    q = np.zeros((6, 6))
    q[:3, :3] = 1e12 * np.eye(3) + 1e11
    q[3:, 3:] = np.array([[2, -1, 0], [-1, 2, -1], [0, -1, 2]]) * 1e-9
    assert objective_curve(q) == CONVEX
    q[3:, 3:] -= 0.7e-9 * np.eye(3)  # eigenvalue 2 - sqrt(2) - 0.7 < 0
    assert objective_curve(q) == NONCONVEX


@pytest.mark.parametrize("entry", [(0, 0, -1e-12), (0, 1, 1e-12), (2, 1, 3.0)])
def test_a_missing_or_negative_square_is_not_convex(entry):
    m = Store()
    m.addvars(3)
    m.setqobjective([], [(1, 1, 1.0), entry])
    m.update()
    assert m.curvature()[0] == NONCONVEX


@pytest.mark.parametrize("shape", ["arrow", "grid", "two dense blocks"])
def test_sparse_structures(shape):
    rng = np.random.default_rng(3)
    n = 400
    q = np.zeros((n, n))
    if shape == "arrow":
        q[0, 1:] = q[1:, 0] = rng.standard_normal(n - 1)
    elif shape == "grid":
        side = np.eye(20, k=1) + np.eye(20, k=-1)
        q = -np.kron(side, np.eye(20)) - np.kron(np.eye(20), side)
    else:
        for block in (slice(0, 190), slice(190, n)):
            f = rng.standard_normal((n, 60))[block]
            q[block, block] = f @ f.T
    least = np.linalg.eigvalsh(q)[0]
    order = rng.permutation(n)
    for off, answer in ((1e-4, CONVEX), (-1e-4, NONCONVEX)):
        shifted = (q + (off - least) * np.eye(n))[order][:, order]
        assert objective_curve(shifted) == answer


# ---- rows


@pytest.mark.parametrize(
    ("sense", "sign", "rhs", "answer"),
    [
        ("<", 1, 1.0, CONVEX),
        (">", -1, -1.0, CONVEX),
        (">", 1, 1.0, NONCONVEX),
        ("<", -1, 1.0, NONCONVEX),
        ("=", 1, 1.0, NONCONVEX),
        ("<", -1, INF, CONVEX),
        (">", 1, -INF, CONVEX),
    ],
)
def test_senses_of_rows(sense, sign, rhs, answer):
    assert row_store(2, [(0, 0, 1.0 * sign), (1, 0, 1.0 * sign), (1, 1, 1.0 * sign)], (), sense, rhs).curvature() == (
        LINEAR,
        [answer],
    )


def test_a_row_whose_quadratic_terms_cancel_is_linear():
    m = row_store(2, [(0, 1, 1.0), (1, 0, -1.0)], [(0, 1.0)], "=")
    assert m.curvature()[1] == [LINEAR]
    assert m.cones() == []


SQUARE, PRODUCT = [(2, 2, -2.0)], [(2, 3, -2.0)]
REST = [(0, 0, 1.0), (0, 1, 1.0), (1, 1, 3.0)]


@pytest.mark.parametrize(
    ("head", "lb", "ub", "rhs", "linear", "answer"),
    [
        (SQUARE, [-INF, -INF, 0, 0], INF, 0.0, (), CONE),
        (SQUARE, -INF, [INF, INF, 0, 0], -3.0, (), CONE),
        (SQUARE, -INF, INF, 0.0, (), NONCONVEX),
        (SQUARE, 0.0, INF, 1.0, (), NONCONVEX),
        (SQUARE, 0.0, INF, 0.0, [(2, 1.0)], NONCONVEX),
        ([*SQUARE, (2, 0, 1.0)], 0.0, INF, 0.0, (), NONCONVEX),
        ([*SQUARE, (3, 3, -1.0)], 0.0, INF, 0.0, (), NONCONVEX),
        (PRODUCT, [-INF, -INF, 0, 0], INF, -1.0, (), CONE),
        (PRODUCT, -INF, [INF, INF, 0, 0], 0.0, (), CONE),
        (PRODUCT, [-INF, -INF, 0, -INF], [INF, INF, INF, 0], 0.0, (), NONCONVEX),
        ([(2, 3, 2.0)], [-INF, -INF, 0, -INF], [INF, INF, INF, 0], 0.0, (), CONE),
        ([*PRODUCT, (2, 2, 1.0)], 0.0, INF, 0.0, (), NONCONVEX),
        (PRODUCT, [-INF, -INF, 0, -INF], INF, 0.0, (), NONCONVEX),
    ],
)
@pytest.mark.parametrize("turned", [False, True])
def test_second_order_cones(head, lb, ub, rhs, linear, answer, turned):
    sign, sense = (-1.0, ">") if turned else (1.0, "<")
    quadratic = [(i, j, sign * v) for i, j, v in REST + head]
    m = row_store(4, quadratic, [(i, sign * v) for i, v in linear], sense, sign * rhs, lb, ub)
    assert m.curvature()[1] == [answer]
    if answer == CONE:
        check_cone(m, quadratic, [], sign, sign * rhs, lb, ub)
    else:
        with pytest.raises(StoreError, match="quadratic row cap is not convex"):
            m.cones()


def check_cone(m, quadratic, linear, sign, rhs, lb, ub):
    """The row holds at a point within the bounds where the cone's slacks lie in the cone, and nowhere else."""
    ((row, offset, matrix),) = m.cones()
    assert row == 0
    nvars = matrix.shape[1]
    rng = np.random.default_rng(5)
    inside = 0
    for scale in (0.3, 1.0, 3.0, 30.0):
        for point in rng.standard_normal((200, nvars)) * scale:
            x = np.clip(point, lb, ub)
            value = sum(c * x[i] * x[j] for i, j, c in quadratic) + sum(c * x[i] for i, c in linear)
            excess = sign * (value - rhs)
            s = offset - matrix @ x
            assert (excess <= 0.0) == (s[0] >= np.linalg.norm(s[1:])), (x, excess)
            inside += excess <= 0.0
    assert 0 < inside < 800


@pytest.mark.parametrize("rank", [1, 2, 6])
@pytest.mark.parametrize("linear", [[], [(0, 2.0), (5, -0.3)]])
@pytest.mark.parametrize("rhs", [4.0, 1e-3, 5e4])
@pytest.mark.parametrize("sign", [1.0, -1.0])
def test_cones_of_convex_rows_hold_the_same_points(rank, linear, rhs, sign):
    rng = np.random.default_rng([rank, int(rhs)])
    f = rng.standard_normal((6, rank)) * np.sqrt(max(rhs, 0.01)) / 4
    quadratic = terms(sign * f @ f.T)
    m = row_store(6, quadratic, [(i, sign * v) for i, v in linear], "<" if sign > 0 else ">", sign * rhs)
    ((_, offset, _matrix),) = m.cones()
    assert len(offset) == (1 if not linear else 2) + rank  # no more rows than the rank needs
    check_cone(m, quadratic, [(i, sign * v) for i, v in linear], sign, sign * rhs, -INF, INF)


@pytest.mark.parametrize(
    ("function", "nulls", "missing"),
    [("TRVcurvature", 2, "objective"), ("TRVgetcones", 1, "cones"), ("TRVconeduals", 4, "cones")],
)
def test_results_without_a_place_are_refused(function, nulls, missing):
    with pytest.raises(StoreError, match=f"^{missing}: an array is missing$"):
        row_store(1, [(0, 0, 1.0)]).call(function, *[None] * nulls)
