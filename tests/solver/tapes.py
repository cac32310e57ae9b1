"""Tapes for tests: operations by name, a builder, random tapes, and a reader of tapes that works with NumPy.

>>> code, constants = tape("*", 2.0, ("sin", ("*", 0, 1)))      # 2 sin(x0 x1): numbers with a point are constants
>>> evaluate(code, constants, np.array([0.5, 1.0]))
"""

import numpy as np

BINARY = ["-", "*", "/", "**"]
UNARY = ["neg", "square", "sqrt", "exp", "log", "log2", "log10", "sin", "cos", "tan", "tanh", "logistic", "abs"]
NAMES = ["constant", "sum", *BINARY, *UNARY]
OP = {name: number for number, name in enumerate(NAMES)}


def logistic(z):
    return 1.0 / (1.0 + np.exp(-z))


FUNCTION = {
    "-": np.subtract,
    "*": np.multiply,
    "/": np.divide,
    "**": np.power,
    "neg": np.negative,
    "square": np.square,
    "logistic": logistic,
    "abs": lambda z: z * np.sign(np.real(z)),
    **{name: getattr(np, name) for name in ["sqrt", "exp", "log", "log2", "log10", "sin", "cos", "tan", "tanh"]},
}


def op(name):
    return ~OP[name]


def sumof(n):
    return ~(OP["sum"] | n << 5)


def tape(*expression):
    """Codes and constants of an expression: an int is a variable, a float a constant, a tuple (operation, operands)."""
    code, constants = [], []

    def put(part):
        if isinstance(part, float):
            code.append(op("constant"))
            constants.append(part)
        elif not isinstance(part, tuple):
            code.append(int(part))
        else:
            for operand in part[1:]:
                put(operand)
            code.append(sumof(len(part) - 1) if part[0] == "sum" else op(part[0]))

    put(expression if isinstance(expression[0], str) else expression[0])
    return code, constants


def random_expression(rng, nvars, depth):
    if depth == 0 or rng.random() < 0.15:
        return int(rng.integers(nvars)) if rng.random() < 0.8 else float(np.round(rng.uniform(0.1, 2.0), 3))
    kind = rng.random()
    if kind < 0.25:
        return ("sum", *(random_expression(rng, nvars, depth - 1) for _ in range(rng.integers(1, 5))))
    if kind < 0.6:
        return (str(rng.choice(BINARY)), *(random_expression(rng, nvars, depth - 1) for _ in range(2)))
    return (str(rng.choice(UNARY)), random_expression(rng, nvars, depth - 1))


def variables_of(code):
    """In the order of first occurrence."""
    return list(dict.fromkeys(k for k in code if k >= 0))


def evaluate(code, constants, x):
    """At x by id; complex numbers too, whose imaginary parts then carry a derivative."""
    stack, rest = [], iter(constants)
    with np.errstate(all="ignore"):
        for k in code:
            if k >= 0:
                stack.append(x[k])
                continue
            name, arity = NAMES[~k & 31], ~k >> 5
            if name == "constant":
                stack.append(x.dtype.type(next(rest)))
            elif name == "sum":
                stack[-arity:] = [sum(stack[-arity:])]
            else:
                operands = 2 if name in BINARY else 1
                stack[-operands:] = [FUNCTION[name](*stack[-operands:])]
    assert len(stack) == 1
    return stack[0]
