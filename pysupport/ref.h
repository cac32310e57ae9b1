// The owner of a Python reference.
//
//   Ref list = Ref::steal(PyList_New(0));     takes over the reference that the call returned
//   Ref type = Ref::borrow(object);           adds a reference of its own to one that somebody else holds
//   return list.release();                    hands the reference to the caller
//
// Steal and borrow are spoken wherever a pointer enters, release wherever one leaves, so that no reference changes
// hands unsaid. Ref::steal(NULL) is an empty Ref; `check(...)` in error.h turns a failed call into an exception first.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <utility>

namespace pysupport {

class Ref {
  public:
    Ref() = default;
    static Ref steal(PyObject *object) { return Ref(object); }
    static Ref borrow(PyObject *object) { return Ref(Py_XNewRef(object)); }
    static Ref none() { return borrow(Py_None); }

    Ref(const Ref &other) : object_(Py_XNewRef(other.object_)) {}
    Ref(Ref &&other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref &operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() { Py_XDECREF(object_); }

    PyObject *get() const { return object_; }
    [[nodiscard]] PyObject *release() { return std::exchange(object_, nullptr); }
    // For a tp_clear: the object is gone from here before its destructor can run Python code that looks again.
    void reset() { Py_XDECREF(std::exchange(object_, nullptr)); }
    explicit operator bool() const { return object_ != nullptr; }
    bool is(PyObject *other) const { return object_ == other; }
    bool is_none() const { return object_ == Py_None; }
    template <class Layout> Layout *as() const { return reinterpret_cast<Layout *>(object_); }

  private:
    explicit Ref(PyObject *object) : object_(object) {}
    PyObject *object_ = nullptr;
};

} // namespace pysupport
