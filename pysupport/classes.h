// Building an ordinary Python class (type(name, (base,), namespace)) from a table of members.
//
//   const Member members[] = {
//       method("sum", mvar_sum, "sum(axis=None)\n--\n\nSum over the given axes ..."),
//       class_method("zeros", ...), static_method("fromlist", ...), property("shape", get_shape, "..."),
//       property("_vararr", get_vararr, set_vararr, "..."),             get, and set-or-delete (value NULL); native
//   };
//   Ref cls = build_class(base, "MVar", "tarvopy._matrixapi", doc, members);
//   add_members(...) registers what several classes share.
//
// A method is a method descriptor over a vectorcall function, which Python also binds to the operator slots
// (`__add__`). The rows must outlive the classes: keep them in static storage.
#pragma once

#include "pysupport/error.h"

#include <span>

namespace pysupport {

using MethodFunction = PyObject *(*)(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames);
using PropertyGet = PyObject *(*)(PyObject *self, void *);
using PropertySet = int (*)(PyObject *self, PyObject *value, void *);

struct Member {
    enum Kind { Method, ClassMethod, StaticMethod, Property } kind;
    PyMethodDef method;
    PyGetSetDef property;
};

Member method(const char *name, MethodFunction function, const char *doc);
Member class_method(const char *name, MethodFunction function, const char *doc);  // self is the class
Member static_method(const char *name, MethodFunction function, const char *doc); // self is NULL
Member property(const char *name, PropertyGet get, const char *doc);              // read-only: a Python property
Member property(const char *name, PropertyGet get, PropertySet set, const char *doc);

// base: the native type whose instances the functions expect as self.
void add_members(PyObject *namespace_dict, PyTypeObject *base, std::span<Member> members);
Ref new_namespace(const char *module, const char *qualname, const char *doc);
Ref build_class(const char *name, PyTypeObject *base, PyObject *namespace_dict);

} // namespace pysupport
