// quicksum(iterable): a sum in one pass that accumulates in place.
#include "linexpr.h"

namespace tarvopy::core {

namespace {

bool same_shape(PyObject *a, PyObject *b) {
    Ref left = Ref::steal(PyObject_GetAttrString(a, "shape")), right;
    if (left)
        right = Ref::steal(PyObject_GetAttrString(b, "shape"));
    if (!right) {
        PyErr_Clear();
        return false;
    }
    return check_status(PyObject_RichCompareBool(left.get(), right.get(), Py_EQ)) == 1;
}

// Matrix objects and whatever else adds up. The total is nobody else's from its second term on, so it may be added to
// in place; in place shapes do not grow, hence the test.
Ref add_general(const Ref &total, PyObject *item, bool own) {
    if (own && same_shape(total.get(), item))
        return check(PyNumber_InPlaceAdd(total.get(), item));
    return check(PyNumber_Add(total.get(), item));
}

} // namespace

PyObject *quicksum(PyObject *, PyObject *iterable) {
    return border([&] {
        Ref items = check(PyObject_GetIter(iterable));
        Ref total = empty_linexpr(0.0);
        bool linear = true;
        while (Ref item = Ref::steal(PyIter_Next(items.get()))) {
            Operand operand = linear ? classify(item.get()) : Operand{OperandKind::Foreign, item.get()};
            if (operand.kind == OperandKind::Number || operand.is_expression()) {
                add_to(as_linexpr(total), operand, 1.0);
            } else {
                total = add_general(total, item.get(), !linear);
                linear = false;
            }
        }
        if (PyErr_Occurred())
            throw PythonError{};
        return total;
    });
}

} // namespace tarvopy::core
