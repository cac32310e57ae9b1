"""clnlbeam in CasADi, its arrays as MX symbols: up to the solver object that is ready to run (derivatives and their
patterns are there, Ipopt is not called), and up to the function of the model alone."""

import casadi as ca
from common import ALPHA


def beam(n):
    """(variables, objective, rows)"""
    h = 1 / n
    t, x, u = (ca.MX.sym(name, n + 1) for name in "txu")
    sines, cosines = ca.sin(t), ca.cos(t)
    rows = ca.vertcat(x[1:] - x[:-1] - 0.5 * h * (sines[1:] + sines[:-1]), t[1:] - t[:-1] - 0.5 * h * (u[1:] + u[:-1]))
    bending = 0.5 * h * (ca.dot(u[1:], u[1:]) + ca.dot(u[:-1], u[:-1]))
    return ca.vertcat(t, x, u), bending + 0.5 * ALPHA * h * ca.sum1(cosines[1:] + cosines[:-1]), rows


def clnlbeam(n):
    x, f, g = beam(n)
    quiet = {"print_time": False, "ipopt.print_level": 0, "ipopt.sb": "yes"}
    solver = ca.nlpsol("solver", "ipopt", {"x": x, "f": f, "g": g}, quiet)
    return lambda: {
        "vars": solver.size1_in(0), "rows": solver.size1_out(2),
        "nz": solver.get_function("nlp_jac_g").nnz_out(1), "_model": solver,
    }  # fmt: skip


def clnlbeam_graph(n):
    x, f, g = beam(n)
    model = ca.Function("model", [x], [f, g])
    return lambda: {"vars": model.size1_in(0), "rows": model.size1_out(1), "nz": 8 * n, "_model": model}


FAMILIES = {"clnlbeam": clnlbeam, "clnlbeam_graph": clnlbeam_graph}
