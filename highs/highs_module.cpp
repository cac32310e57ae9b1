// tarvopy._highs: HiGHS through its C interface. Arrays in, arrays out; what statuses and parameters mean stands in
// engines/highs.py.
#include "library.h"
#include "pysupport/interpreter.h"
#include "solver_object.h"

namespace tarvopy::highs {

using namespace pysupport;

namespace {

PyObject *module_open_library(PyObject *, PyObject *path) {
    return border([&] {
        PyObject *converted = nullptr;
        if (!PyUnicode_FSConverter(path, &converted))
            throw PythonError{};
        Ref bytes = Ref::steal(converted);
        try {
            open_library(PyBytes_AS_STRING(bytes.get()));
        } catch (const LibraryError &error) {
            fail(highs_error, "%s", error.what());
        }
        return Ref::none();
    });
}

PyObject *module_version(PyObject *, PyObject *) {
    return border([&] { return library_is_open() ? check(PyUnicode_FromString(library().version())) : Ref::none(); });
}

PyMethodDef functions[] = {
    {"open_library", module_open_library, METH_O,
     "open_library(path): opens libhighs.so for this process; what is open already stays."},
    {"version", module_version, METH_NOARGS, "Version of the open library, None while none is open."},
    {nullptr, nullptr, 0, nullptr},
};

int execute(PyObject *module) {
    return border_status([&] {
        require_main_interpreter("tarvopy._highs");
        if (!highs_error)
            highs_error =
                check(PyErr_NewExceptionWithDoc("tarvopy._highs.HighsError", "What HiGHS refuses or fails at.",
                                                PyExc_RuntimeError, nullptr))
                    .release();
        check_status(PyModule_AddObjectRef(module, "HighsError", highs_error));
        check_status(PyModule_AddObjectRef(module, "Solver", make_solver_type(module).get()));
    });
}

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void *>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "_highs",
                          "HiGHS through its C interface.",
                          0,
                          functions,
                          module_slots,
                          nullptr,
                          nullptr,
                          nullptr};

} // namespace

} // namespace tarvopy::highs

extern "C" __attribute__((visibility("default"))) PyObject *PyInit__highs(void) {
    return PyModuleDef_Init(&tarvopy::highs::definition);
}
