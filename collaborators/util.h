// What the siblings know of tarvopy._util: its native functions stand in the module dictionary `__capi__`, from name to
// a capsule whose name is the signature.
#pragma once

#include "pysupport/error.h"

namespace tarvopy {

// The TRVmodel pointer of a model handle; NULL with an error set for a closed model or another object.
inline constexpr const char *ptr_signature = "void *(PyObject *)";
using PtrFunction = void *(*)(PyObject *);

// Fetches a function from a module's table, with the import's own errors where it is missing or has another signature.
inline void *import_c_function(PyObject *module, const char *module_name, const char *name, const char *signature) {
    using namespace pysupport;
    Ref table = Ref::steal(PyObject_GetAttrString(module, "__capi__"));
    PyObject *capsule = table ? PyDict_GetItemString(table.get(), name) : nullptr; // borrowed
    if (!capsule) {
        PyErr_Clear();
        fail(PyExc_ImportError, "%.200s does not export expected C %.8s %.200s", module_name, "function", name);
    }
    if (!PyCapsule_IsValid(capsule, signature)) {
        const char *got = PyCapsule_CheckExact(capsule) ? PyCapsule_GetName(capsule) : "no capsule";
        fail(PyExc_TypeError, "C %.8s %.200s.%.200s has wrong signature (expected %.500s, got %.500s)", "function",
             module_name, name, signature, got ? got : "no name");
    }
    return PyCapsule_GetPointer(capsule, signature);
}

} // namespace tarvopy
