"""Nonlinear problems of the literature with published optima, written as arrays.

Sources: HS, W. Hock and K. Schittkowski, Test Examples for Nonlinear Programming Codes, 1981 (HS112: with the optimum
that later printings correct it to); DS, L. Dixon and G. Szego, Towards Global Optimisation 2, 1978; DG, M. Duran and I.
Grossmann, Mathematical Programming 36, 1986; MINLPLib (minlplib.org). Of each the model is built here as a user of
arrays would, which is not always how it was printed: posynomials are sums of exponentials of the logarithms.
"""

import numpy as np
import pytest
import scipy.sparse as sp

import tarvopy
from tarvopy import TRV, nlfunc

pytest.importorskip("pyscipopt")


def hs29(m):
    """A product of three variables on an ellipsoid: nonconvex, four global optima."""
    x = m.addMVar(3, lb=-10, ub=10)
    m.addConstr(np.array([1.0, 2.0, 4.0]) @ x**2 <= 48)
    m.setObjective(-x[0] * x[1] * x[2])
    return -16 * np.sqrt(2)


def hs64(m):
    """Two posynomials with few terms in common: a sparse matrix times exponentials."""
    monomials = sp.csr_array([[5, 20, 10, 50000, 72000, 144000], [0, 0, 0, 4, 32, 120.0]])
    logs = m.addMVar(3, lb=np.log(1e-3), ub=np.log(1e4))
    cost, limit = monomials @ nlfunc.exp(tarvopy.concatenate([logs, -logs]))
    m.addConstr(limit <= 1)
    m.setObjective(cost)
    return 6299.842428


def hs66(m):
    """Two exponentials, one above the other: convex."""
    x = m.addMVar(3, ub=[100, 100, 10])
    m.addConstr(x[1:] >= nlfunc.exp(x[:-1]))
    m.setObjective(np.array([-0.8, 0.0, 0.2]) @ x)
    return 0.5181632741


def hs71(m):
    """A product of four variables outside, a sphere inside: nonconvex."""
    x = m.addMVar(4, lb=1, ub=5)
    m.addConstr(x[0] * x[1] * x[2] * x[3] >= 25)
    m.addConstr((x * x).sum() == 40)
    m.setObjective(x[0] * x[3] * x[:3].sum() + x[2])
    return 17.0140173


def hs93(m):
    """Transformer design: two posynomials in twelve monomials, a dense matrix times exponentials."""
    one = np.eye(6)
    first, second = one[0] + one[3] + one[[0, 1, 2]], one[1] + one[2] + one[[0, 1, 3]]
    exponents = np.vstack([first, second, first + 2 * one[4], second + 2 * one[5]])
    weights = np.array([1, 1.57, 1])
    cost = np.concatenate([np.full(3, 0.0204), 0.0187 * weights, np.full(3, 0.0607), 0.0437 * weights])
    losses = np.concatenate([np.zeros(6), np.full(3, 0.00062), 0.00058 * weights])
    logs = m.addMVar(6, lb=np.log(0.1), ub=np.log(20))
    value = np.vstack([cost, losses]) @ nlfunc.exp(exponents @ logs)
    m.addConstr(logs.sum() >= np.log(2070))
    m.addConstr(value[1] <= 1)
    m.setObjective(value[0])
    return 135.075961


def hs104(m):
    """Two reactors in line: powers with broken exponents, products and quotients."""
    x = m.addMVar(8, lb=0.1, ub=10)
    flow, time, heat = x[:2], x[6:], x[4:6]
    objective = 0.4 * (flow**0.67 * time**-0.67).sum() + 10 - flow.sum()
    m.addConstr(1 - 0.0588 * heat * time - 0.1 * (np.array([[1, 0], [1, 1]]) @ flow) >= 0)
    rate = x[2:4]
    m.addConstr(1 - 4 * rate / heat - 2 * rate**-0.71 / heat - 0.0588 * rate**-1.3 * time >= 0)
    m.addConstr(objective >= 1)
    m.addConstr(objective <= 4.2)
    m.setObjective(objective)
    return 3.9511634396


def hs112(m):
    """Chemical equilibrium: amounts times the logarithms of their shares."""
    energy = [-6.089, -17.164, -34.054, -5.914, -24.721, -14.986, -24.1, -10.708, -26.662, -22.179]
    elements = np.array(
        [[1, 2, 2, 0, 0, 1, 0, 0, 0, 1], [0, 0, 0, 1, 2, 1, 1, 0, 0, 0], [0, 0, 1, 0, 0, 0, 1, 1, 2, 1]]
    )
    amount = m.addMVar(10, lb=1e-6, ub=2)
    total = m.addVar(lb=1e-6, ub=20)
    m.addConstr(elements @ amount == [2, 1, 1])
    m.addConstr(total == amount.sum())
    m.setObjective((amount * (np.array(energy) + nlfunc.log(amount))).sum() - total * nlfunc.log(total))
    return -47.76109


def hartman3(m):
    """Four wells in the unit cube: nonconvex, a weight vector times exponentials."""
    weight, wide = np.array([1, 1.2, 3, 3.2]), np.array([[3, 10, 30], [0.1, 10, 35]] * 2)
    centre = np.array([[3689, 1170, 2673], [4699, 4387, 7470], [1091, 8732, 5547], [381, 5743, 8828]]) / 1e4
    x = m.addMVar(3, ub=1)
    m.setObjective(-weight @ nlfunc.exp(-(wide * (x - centre) ** 2).sum(axis=1)))
    return -3.86278215


def shekel5(m):
    """Five wells in four dimensions: nonconvex, a sum of reciprocals."""
    centre = np.array([[4, 4, 4, 4], [1, 1, 1, 1], [8, 8, 8, 8], [6, 6, 6, 6], [3, 7, 3, 7]])
    x = m.addMVar(4, ub=10)
    depth = ((x - centre) ** 2).sum(axis=1) + np.array([0.1, 0.2, 0.2, 0.4, 0.4])
    m.setObjective((-1 / depth).sum())
    return -10.1531996791


def synthes1(m):
    """Process synthesis with three binary choices (DG 1): convex but for these."""
    x, built = m.addMVar(3, ub=[2, 2, 1]), m.addMVar(3, vtype="B")
    gains = nlfunc.log(np.array([[0, 1, 0], [1, -1, 0]]) @ x + 1)
    m.addConstr(np.array([0.8, 0.96]) @ gains >= 0.8 * x[2])
    m.addConstr(np.array([1, 1.2]) @ gains >= x[2] + 2 * built[2] - 2)
    m.addConstr(
        np.array([[-1, 1, 0], [0, 1, 0], [1, -1, 0]]) @ x <= tarvopy.concatenate([0 * built[:1], 2 * built[:2]])
    )
    m.addConstr(built[:2].sum() <= 1)
    fixed = np.array([5, 6, 8]) @ built + np.array([10, 0, -7]) @ x + 10
    m.setObjective(fixed - np.array([18, 19.2]) @ gains)
    return 6.00975891


def nvs09(m):
    """Ten integers (MINLPLib): squared logarithms, and a root of the product of all: nonconvex."""
    x = m.addMVar(10, lb=3, ub=9, vtype="I")
    product = nlfunc.exp(0.2 * nlfunc.log(x).sum())
    m.setObjective((nlfunc.log(x - 2) ** 2 + nlfunc.log(10 - x) ** 2).sum() - product)
    return -43.13433692


def ex1221(m):
    """Two equations that binary choices open (MINLPLib): nonconvex."""
    x, y = m.addMVar(2, ub=10), m.addMVar(3, vtype="B")
    m.addConstr(x ** np.array([2, 1.5]) + np.array([1, 1.5]) * y[:2] == [1.25, 3])
    m.addConstr(np.array([1, 1.333]) * x + y[:2] <= [1.6, 3])
    m.addConstr(y[2] <= y[:2].sum())
    m.setObjective(np.array([2, 3]) @ x + np.array([1.5, 2, -0.5]) @ y)
    return 7.66718007


PROBLEMS = [hs29, hs64, hs66, hs71, hs93, hs104, hs112, hartman3, shekel5, synthes1, nvs09, ex1221]


@pytest.mark.parametrize("problem", PROBLEMS, ids=lambda problem: problem.__name__)
@pytest.mark.filterwarnings("error")  # an answer called imprecise would be a misfire
def test_published_optimum_is_found_and_proven(problem):
    with tarvopy.Model(problem.__name__) as m:
        m.params.LogLevel = 0
        m.params.RelGap = 1e-5
        m.params.TimeLimit = 60
        published = problem(m)
        m.optimize()
        assert m.Status == TRV.OPTIMAL
        assert m.EngineName.startswith("SCIP")
        assert m.ObjVal == pytest.approx(published, rel=1e-5)
        assert m.ObjBound <= m.ObjVal + 1e-6
        assert m.ObjBound == pytest.approx(published, rel=3e-5)
        assert m.report().holds
