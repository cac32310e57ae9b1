// Reading the arguments of a method that is called with METH_FASTCALL | METH_KEYWORDS.
//
//   static const Signature signature{"sum", {"axis"}, 0};              name, parameters, how many must be given
//   Arguments given(signature, self_counts, args, nargs, kwnames);
//   PyObject *axis = given[0];                                          borrowed; NULL where it was left out
//
// The counts in the messages include self for methods of the matrix classes, as Python's own messages for functions do,
// and leave it out for those of Model, as they do for native methods:
//   sum() takes at most 2 positional arguments (3 given)                           x.sum(1, 2)
//   addRange() takes at least 3 positional arguments (2 given)                     m.addRange(x, 1)
#pragma once

#include "pysupport/error.h"

#include <initializer_list>

namespace pysupport {

inline constexpr int max_parameters = 8;

struct Signature {
    const char *function;
    const char *parameters[max_parameters] = {};
    int count = 0;
    int required = 0;
    int positional = 0; // the parameters from here on are keyword-only

    Signature(const char *name, std::initializer_list<const char *> names, int required_count,
              int positional_count = -1);
};

class Arguments {
  public:
    // self_counts: 1 where the messages count self or the class, else 0.
    Arguments(const Signature &signature, int self_counts, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames);
    PyObject *operator[](int i) const { return values_[i]; }
    // The value, or what stands for one that was left out (borrowed).
    PyObject *get(int i, PyObject *otherwise) const { return values_[i] ? values_[i] : otherwise; }

  private:
    PyObject *values_[max_parameters] = {};
};

// For operators and other methods of exactly one argument without a keyword path of their own.
[[noreturn]] void wrong_count(const char *function, const char *how, Py_ssize_t wanted, Py_ssize_t given);

// The UTF-8 of an attribute's name, for looking it up; "" for a string that no C string holds (a surrogate, a NUL
// inside) and that is therefore no attribute's name. TypeError for what is not a string.
const char *attribute_name(PyObject *name);

} // namespace pysupport
