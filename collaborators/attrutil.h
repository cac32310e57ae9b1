// What the siblings know of tarvopy._attrutil: whole-array attribute transfer by id, below its listed Python functions.
//
// A capsule "tarvopy._attrutil._C_API". NULL or -1 with the error indicator set; a call that fails changes nothing.
#pragma once

#include "collaborators/core.h"

namespace tarvopy {

struct AttrApi {
    int version;

    // ids: a C-contiguous int32 ndarray of any shape (pending elements are fine). The result has its shape and the
    // dtype of the attribute's type: "U1", int32, float64, object. Consecutive ids are read in one block.
    PyObject *(*get)(ModelObject *model, int kind, const char *name, PyObject *ids);

    // values: a C-contiguous float64 ndarray with as many entries as ids or exactly one (double attributes), or a list
    // of as many Python values, or a single str / number that is spread.
    int (*set)(ModelObject *model, int kind, const char *name, PyObject *ids, PyObject *values);

    static const AttrApi *load() {
        auto *api = static_cast<const AttrApi *>(import_table("tarvopy._attrutil", "tarvopy._attrutil._C_API"));
        if (api && api->version != current_version) {
            PyErr_SetString(PyExc_ValueError, "tarvopy._attrutil has another version of its interface");
            return nullptr;
        }
        return api;
    }
    static constexpr int current_version = 1;
};

} // namespace tarvopy
