// NumPy's functions on matrix objects. NumPy would take an object that it does not know for one element: numpy.sum(x)
// gave x back, numpy.mean(x) and numpy.max(x) as well, numpy.dot(A, x) multiplied element by element. So each function
// is handed here first: what a method of ours does is done by it, and the rest is refused with what to use instead.
#include "matrixapi/array_function.h"
#include "matrixapi/base.h"

#include <string>
#include <string_view>

namespace tarvopy {

using namespace pysupport;

namespace {

bool is_one_of(std::string_view name, std::initializer_list<std::string_view> names) {
    for (std::string_view one : names)
        if (one == name)
            return true;
    return false;
}

// Their own code asks the object for its attribute of that name.
bool reads_an_attribute(std::string_view name) {
    return is_one_of(name, {"shape", "ndim", "size"});
}

bool is_a_method(PyObject *arguments, std::string_view name) {
    PyObject *first = PyTuple_GET_SIZE(arguments) > 0 ? PyTuple_GET_ITEM(arguments, 0) : nullptr;
    return first && is_matrix(first) && is_one_of(name, {"sum", "transpose", "reshape", "diagonal", "copy"}) &&
           PyObject_HasAttrString(reinterpret_cast<PyObject *>(Py_TYPE(first)), std::string(name).c_str());
}

struct Advice {
    std::string_view name;
    const char *text;
};

constexpr Advice advices[] = {
    {"dot", "use @"},
    {"inner", "use @"},
    {"vdot", "use @"},
    {"tensordot", "use @"},
    {"einsum", "use @, * and sum"},
    {"outer", "use x[:, None] * y"},
    {"mean", "use x.sum() / x.size"},
    {"average", "use x.sum() / x.size"},
    {"max", "a maximum is a constraint: y == genfunc.max(x)"},
    {"amax", "a maximum is a constraint: y == genfunc.max(x)"},
    {"min", "a minimum is a constraint: y == genfunc.min(x)"},
    {"amin", "a minimum is a constraint: y == genfunc.min(x)"},
    {"clip", "bounds are constraints, or LB and UB of variables"},
    {"linalg.norm", "use (x * x).sum()"},
    {"diff", "use x[1:] - x[:-1]"},
    {"ravel", "use x.reshape(-1)"},
    {"squeeze", "use reshape"},
    {"expand_dims", "use x[:, None]"},
    {"flip", "use x[::-1]"},
    {"diag", "use x.diagonal()"},
    {"take", "use x[indices]"},
    {"concatenate", "use tarvopy.concatenate"},
    {"append", "use tarvopy.concatenate"},
    {"stack", "use tarvopy.concatenate"},
    {"hstack", "use tarvopy.hstack"},
    {"vstack", "use tarvopy.vstack"},
    {"column_stack", "use tarvopy.hstack"},
};

const char *advice_for(std::string_view name) {
    for (const Advice &advice : advices)
        if (advice.name == name)
            return advice.text;
    return "use operators, indexing and methods; tolist() gives the elements";
}

// "sum", "linalg.norm"
std::string name_of(PyObject *function) {
    Ref name = check(PyObject_GetAttrString(function, "__name__"));
    Ref module = check(PyObject_GetAttrString(function, "__module__"));
    Ref whole = check(PyUnicode_FromFormat("%S.%S", module.get(), name.get()));
    const char *text = PyUnicode_AsUTF8(whole.get());
    if (!text)
        throw PythonError{};
    std::string_view rest = text, numpy = "numpy.";
    return std::string(rest.starts_with(numpy) ? rest.substr(numpy.size()) : rest);
}

Ref call_method(const char *name, PyObject *arguments, PyObject *keywords) {
    Ref method = check(PyObject_GetAttrString(PyTuple_GET_ITEM(arguments, 0), name));
    Ref rest = check(PyTuple_GetSlice(arguments, 1, PyTuple_GET_SIZE(arguments)));
    return check(PyObject_Call(method.get(), rest.get(), keywords));
}

PyObject *array_function(PyObject *self, PyObject *given) {
    return border([&] {
        PyObject *function, *types, *arguments, *keywords;
        if (!PyArg_ParseTuple(given, "OOO!O!:__array_function__", &function, &types, &PyTuple_Type, &arguments,
                              &PyDict_Type, &keywords))
            throw PythonError{};
        std::string name = name_of(function);
        if (reads_an_attribute(name)) {
            Ref own = check(PyObject_GetAttrString(function, "_implementation"));
            return check(PyObject_Call(own.get(), arguments, keywords));
        }
        if (is_a_method(arguments, name))
            return call_method(name.c_str(), arguments, keywords);
        fail(PyExc_TypeError, "numpy.%s does not work on an %s: %s", name.c_str(), Py_TYPE(self)->tp_name,
             advice_for(name));
    });
}

} // namespace

const PyMethodDef array_function_method = {
    "__array_function__", array_function, METH_VARARGS,
    "NumPy's functions: those that a method has are done by it, others are refused with a TypeError."};

} // namespace tarvopy
