// NumPy arrays over memory that is the store's, or that the store allocated for its caller.
//
//   Ref keeper = kept<TRVmatrix, TRVfreematrix>(matrix, "tarvopy._modelapi.matrix");   gives it back at its end
//   Ref start = owned(keeper.get(), NPY_INT32, n + 1, matrix.start);                   writable, holds the keeper
//   Ref lb = view(pin.get(), NPY_DOUBLE, n, data.lb);                                  read-only
#pragma once

#include "modelapi.h"

#include <memory>
#include <new>

namespace tarvopy::modelapi {

// A read-only array of memory that lives as long as `owner`. Takes over descr.
inline Ref view_of(PyObject *owner, PyArray_Descr *descr, npy_intp count, const void *data) {
    static char nothing; // an empty vector's pointer may be NULL, for which NumPy would allocate
    void *memory = data ? const_cast<void *>(data) : &nothing;
    Ref array = check(PyArray_NewFromDescr(&PyArray_Type, descr, 1, &count, nullptr, memory, 0, nullptr));
    check_status(PyArray_SetBaseObject(pysupport::as_array(array), Py_NewRef(owner)));
    return array;
}

inline Ref view(PyObject *owner, int type, npy_intp count, const void *data) {
    return view_of(owner, PyArray_DescrFromType(type), count, data);
}

// Single characters, dtype "S1".
inline Ref letters_view(PyObject *owner, npy_intp count, const char *data) {
    PyArray_Descr *descr = PyArray_DescrNewFromType(NPY_STRING);
    if (!descr)
        throw PythonError{};
    PyDataType_SET_ELSIZE(descr, 1);
    return view_of(owner, descr, count, data);
}

// The same as an array of the caller's own, to be written too.
inline Ref owned(PyObject *owner, int type, npy_intp count, const void *data) {
    Ref array = view(owner, type, count, data);
    PyArray_ENABLEFLAGS(pysupport::as_array(array), NPY_ARRAY_WRITEABLE);
    return array;
}

// Takes over what the store allocated; a capsule of this name that gives it back.
template <class Arrays, void (*give_back)(Arrays *)> Ref kept(const Arrays &arrays, const char *name) {
    struct GivesBack {
        void operator()(Arrays *own) const {
            give_back(own);
            delete own;
        }
    };
    std::unique_ptr<Arrays, GivesBack> taken(new (std::nothrow) Arrays(arrays));
    if (!taken) {
        Arrays unwanted = arrays;
        give_back(&unwanted);
        throw std::bad_alloc();
    }
    PyObject *capsule = PyCapsule_New(taken.get(), name, [](PyObject *self) {
        GivesBack()(static_cast<Arrays *>(PyCapsule_GetPointer(self, PyCapsule_GetName(self))));
    });
    if (!capsule)
        throw PythonError{};
    (void)taken.release(); // the capsule's
    return Ref::steal(capsule);
}

// Takes over a matrix: its (start, index, value), the caller's own.
inline Ref matrix_arrays(const TRVmatrix &matrix) {
    Ref keeper = kept<TRVmatrix, TRVfreematrix>(matrix, "tarvopy._modelapi.matrix");
    Ref start = owned(keeper.get(), NPY_INT32, matrix.nmajor + 1, matrix.start);
    Ref index = owned(keeper.get(), NPY_INT32, matrix.nnz, matrix.index);
    Ref value = owned(keeper.get(), NPY_DOUBLE, matrix.nnz, matrix.value);
    return check(PyTuple_Pack(3, start.get(), index.get(), value.get()));
}

} // namespace tarvopy::modelapi
