// One side of a constraint in numbers, and what both sides must agree on.
#pragma once

#include "matrixapi/flat_quad.h"
#include "pysupport/error.h"

namespace tarvopy {

using pysupport::Ref;

struct Side {
    flat::Form form;
    Ref model;
    bool scalar = false; // a scalar object or a number
    Ref numbers;         // a float64 array in C order: the constants, instead of those of the form
};

// Of a number, an array, a variable or a linear expression; TypeError for anything else.
Side linear_side(PyObject *object);

struct QuadSide {
    Side linear; // carries shape and model of the whole side
    flat::QuadForm quad;
};
// The same, or a quadratic expression (quad_rows.cpp). The numbers stand in the form.
QuadSide quadratic_side(PyObject *object);
// The numbers as constants of the form, for who will spread or add them.
void take_numbers(Side &side);
// An element of an object array as a LinExpr; infinite numbers are bounds here.
Ref element_linexpr(PyObject *element);
// The broadcast shape; ValueError that names both for shapes that do not fit or have more than 2**31 elements.
flat::Shape common_shape(const flat::Shape &a, const flat::Shape &b);

[[noreturn]] void fail_models();

} // namespace tarvopy
