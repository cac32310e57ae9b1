// tarvopy._util: shapes, type questions, the kernels of nonlinear matrix products, and the accessor _ptr for C callers.
//
// C functions stand in the module dictionary `__capi__`, from name to a capsule named after the signature
// (collaborators/util.h).
#include "functions.h"

#include "collaborators/util.h"
#include "pysupport/numbers.h"

namespace tarvopy::util {

using namespace pysupport;

const CoreApi *core = nullptr;

namespace {

PyObject *isscalar(PyObject *, PyObject *object) {
    return border([&] { return Ref::borrow(is_number(object) ? Py_True : Py_False); });
}

PyObject *isstr(PyObject *, PyObject *object) {
    return PyBool_FromLong(PyUnicode_Check(object));
}

void *model_pointer(PyObject *handle) {
    return core->store(handle);
}

// PyMethodDef has one field for functions of every calling convention.
template <class F> PyCFunction as_method(F *function) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

constexpr int fast = METH_FASTCALL | METH_KEYWORDS;

PyMethodDef methods[] = {
    {"_isscalar", isscalar, METH_O,
     "_isscalar(x)\n--\n\nWhether x is a real number: Python's, NumPy's, Fraction or Decimal."},
    {"_isstr", isstr, METH_O, "_isstr(x)\n--\n\nWhether x is a string."},
    {"_broadcast_shapes", as_method(broadcast_shapes), fast,
     "_broadcast_shapes(s1, s2)\n--\n\nNumPy's broadcast of one or two shapes (ints or tuples) as a tuple; ValueError "
     "naming both."},
    {"_axis_to_axeslist", as_method(axis_to_axeslist), fast,
     "_axis_to_axeslist(axis, ndim)\n--\n\nFor each axis its number in the result of a reduction, -1 where it is "
     "summed away.\n\naxis: None "
     "(all), an int, or a tuple or list of ints; IndexError out of range, ValueError for duplicates."},
    {"_matmul_shape", as_method(matmul_shape), fast,
     "_matmul_shape(s1, s2, do_raise=True)\n--\n\nThe shape of a matrix product; ValueError naming both, or None "
     "without do_raise."},
    {"_all_refs_match", as_method(all_refs_match), METH_FASTCALL,
     "_all_refs_match(*arrays)\n--\n\nWhether the arrays hold the very same objects, element by element in C order."},
    {"_dense_matmul_kernel", as_method(dense_matmul_kernel), fast,
     "_dense_matmul_kernel(A, B, f_multiply, f_sum)\n--\n\nThe matrix product of two object arrays, element by "
     "element f_sum([f_multiply(a, b), ...]): an object array of NumPy's shape.\n\nValueError naming both shapes; the "
     "callbacks' own errors."},
    {"_sparse_right_matmul_kernel", as_method(sparse_right_matmul_kernel), fast,
     "_sparse_right_matmul_kernel(A, S, f_multiply, f_sum)\n--\n\nThe same of an object array and a SciPy matrix: "
     "f_multiply(a, s) for its stored entries alone, by ascending contracted index."},
    {"_sparse_left_matmul_kernel", as_method(sparse_left_matmul_kernel), fast,
     "_sparse_left_matmul_kernel(S, B, f_multiply, f_sum)\n--\n\nThe same of a SciPy matrix and an object array: "
     "f_multiply(s, b)."},
    {}};

int execute(PyObject *module) {
    return border_status([&] {
        if (!(core = CoreApi::load()))
            throw PythonError{};
        Ref table = check(PyDict_New());
        void *function = reinterpret_cast<void *>(static_cast<PtrFunction>(model_pointer));
        Ref capsule = check(PyCapsule_New(function, ptr_signature, nullptr));
        check_status(PyDict_SetItemString(table.get(), "_ptr", capsule.get()));
        check_status(PyModule_AddObjectRef(module, "__capi__", table.get()));
    });
}

PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void *>(execute)},
                            {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
                            {}};

PyModuleDef definition = {.m_base = PyModuleDef_HEAD_INIT,
                          .m_name = "tarvopy._util",
                          .m_doc = "Shape arithmetic and type questions.",
                          .m_size = 0,
                          .m_methods = methods,
                          .m_slots = slots};

} // namespace

} // namespace tarvopy::util

PyMODINIT_FUNC PyInit__util() {
    return PyModuleDef_Init(&tarvopy::util::definition);
}
