// Interned attribute names and imported collaborators: filled once when the module is executed, kept for the life of
// the process.
//
//   PyObject_GetAttr(x, names._vararr)        an interned name costs a quarter of a C string at each lookup
//   mod.core->linexpr_new(0.0)                collaborators
//   numpy_function(names.vstack)              NumPy and SciPy are imported when the first method needs them
#pragma once

#include "collaborators/attrutil.h"
#include "collaborators/core.h"
#include "collaborators/util.h"
#include "pysupport/error.h"

namespace tarvopy {

using pysupport::Ref;

// A name that a file looks up belongs here; spelled as in Python.
#define TARVOPY_NAMES(X)                                                                                               \
    X(_vararr)                                                                                                         \
    X(_constrarr)                                                                                                      \
    X(_qconstrarr)                                                                                                     \
    X(_cmodel)                                                                                                         \
    X(_learr)                                                                                                          \
    X(_matmulparts)                                                                                                    \
    X(_const)                                                                                                          \
    X(_qearr)                                                                                                          \
    X(_quadparts)                                                                                                      \
    X(_ndle)                                                                                                           \
    X(_nlearr)                                                                                                         \
    X(_root)                                                                                                           \
    X(_keep_compact)                                                                                                   \
    X(_attrtype)                                                                                                       \
    X(_colno)                                                                                                          \
    X(_rowno)                                                                                                          \
    X(_qconstrno)                                                                                                      \
    X(_genconstrno)                                                                                                    \
    X(_nlconstrno)                                                                                                     \
    X(_typeenum)                                                                                                       \
    X(_typename)                                                                                                       \
    X(_idxarr)                                                                                                         \
    X(_coerce_to_exprtree_array)                                                                                       \
    X(_from_mquadexpr)                                                                                                 \
    X(_from_mvar)                                                                                                      \
    X(_from_mvar_times_mvar)                                                                                           \
    X(_from_matmul_left)                                                                                               \
    X(_from_matmul_right)                                                                                              \
    X(getAttr)                                                                                                         \
    X(setAttr)                                                                                                         \
    X(shape)                                                                                                           \
    X(ndim)                                                                                                            \
    X(size)                                                                                                            \
    X(dtype)                                                                                                           \
    X(flat)                                                                                                            \
    X(order)                                                                                                           \
    X(copy)                                                                                                            \
    X(sum)                                                                                                             \
    X(clear)                                                                                                           \
    X(getValue)                                                                                                        \
    X(item)                                                                                                            \
    X(tolist)                                                                                                          \
    X(reshape)                                                                                                         \
    X(transpose)                                                                                                       \
    X(diagonal)                                                                                                        \
    X(squeeze)                                                                                                         \
    X(array)                                                                                                           \
    X(concatenate)                                                                                                     \
    X(hstack)                                                                                                          \
    X(vstack)                                                                                                          \
    X(axis)                                                                                                            \
    X(format)                                                                                                          \
    X(indptr)                                                                                                          \
    X(indices)                                                                                                         \
    X(data)                                                                                                            \
    X(row)                                                                                                             \
    X(col)                                                                                                             \
    X(T)                                                                                                               \
    X(_normalize)                                                                                                      \
    X(issparse)                                                                                                        \
    X(csr_matrix)                                                                                                      \
    X(coo_matrix)                                                                                                      \
    X(partial)                                                                                                         \
    X(printoptions)                                                                                                    \
    X(vectorize)                                                                                                       \
    X(__name__)                                                                                                        \
    X(__dict__)

struct Names {
#define TARVOPY_DECLARE_NAME(name) PyObject *name;
    TARVOPY_NAMES(TARVOPY_DECLARE_NAME)
#undef TARVOPY_DECLARE_NAME
};
extern Names names;

struct Collaborators {
    const CoreApi *core;
    const AttrApi *attr;
    PtrFunction ptr; // the store of a model handle

    // Python objects, owned for ever.
    PyObject *TarvoError, *TRV, *Iterable;
    PyObject *less_equal, *greater_equal, *equal; // the constraint senses
    PyObject *attrlist, *getattrinfo, *gettypedattrlist, *prefetchattr, *settypedattrlist;
    PyObject *all_refs_match, *axis_to_axeslist, *broadcast_shapes, *isscalar, *isstr, *matmul_shape;
    PyObject *dense_matmul_kernel, *sparse_right_matmul_kernel, *sparse_left_matmul_kernel;

    // The classes of this module in the order in which they are made (NULL before).
    PyObject *MVar, *MLinExpr, *MQuadExpr, *MConstr, *MQConstr, *MGenConstr, *MNLExpr, *MNLConstr;
};
extern Collaborators mod;

void fill_names();
// Steps 2 to 6 of the import sequence.
void import_collaborators();

// Imported when first asked for (borrowed).
PyObject *numpy_module();
PyObject *scipy_sparse();
// An attribute of the module numpy.
Ref numpy_function(PyObject *name);

// Whether `assert` statements would run (python without -O).
bool assertions_enabled();

// TarvoError(code, message).
[[noreturn]] void fail_tarvo(int code, const char *message);

} // namespace tarvopy
