// Rows of the classes' tables whose methods take no argument or one operand. Each names its method once: the name is a
// template argument, and serves the table, keywords and error messages.
//
//   plain<"copy", copy_of>("copy($self)\n--\n\nAn independent ...")            Ref or void copy_of(PyObject *self)
//   operator_of<"__mul__", multiply>("__mul__($self, other)\n--\n\n...")       Ref multiply(PyObject *self, *other)
//   operator_of<"__le__", less_equal, "rhs">(...)                              the operand has another name
//   taking<"__getitem__", select, "obj">(...)                                  an argument that is no operand
//   assignment<"__setitem__", "key", "value", assign>(...)                     void assign(self, key, value)
#pragma once

#include "matrixapi/names.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"
#include "pysupport/classes.h"
#include "pysupport/numpy.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace tarvopy {

// A literal as a template argument.
template <size_t n> struct Text {
    char chars[n];
    consteval Text(const char (&literal)[n]) { std::copy_n(literal, n, chars); }
};

template <Text name, auto rule>
PyObject *plain_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return pysupport::border([&] {
        static const pysupport::Signature signature(name.chars, {}, 0);
        pysupport::Arguments(signature, 1, args, nargs, kwnames);
        if constexpr (std::is_void_v<decltype(rule(self))>) {
            rule(self);
            return Ref::none();
        } else {
            return rule(self);
        }
    });
}
template <Text name, auto rule> pysupport::Member plain(const char *doc) {
    return pysupport::method(name.chars, plain_method<name, rule>, doc);
}

using Operator = Ref (*)(PyObject *self, PyObject *other);

// A method of one operand whose docstring begins with its signature, for tables of many such methods. The text is kept
// for the life of the process.
template <auto method, Text name, Text operand> pysupport::Member with_signature(const char *doc) {
    static const std::string text = std::string(name.chars) + "($self, " + operand.chars + ")\n--\n\n" + doc;
    return pysupport::method(name.chars, method, text.c_str());
}

template <Text name, Text argument, Operator rule>
PyObject *one_argument_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return pysupport::border([&] {
        if (nargs == 1 && !kwnames)
            return rule(self, args[0]);
        static const pysupport::Signature signature(name.chars, {argument.chars}, 1);
        pysupport::Arguments given(signature, 1, args, nargs, kwnames);
        return rule(self, given[0]);
    });
}
template <Text name, Operator rule, Text argument> pysupport::Member taking(const char *doc) {
    return pysupport::method(name.chars, one_argument_method<name, argument, rule>, doc);
}

// The rule of an operator, for operands of bearable size.
template <Text name, Operator rule> Ref checked_operator(PyObject *self, PyObject *operand) {
    need_bearable_operand(self, operand, !std::string_view(name.chars).ends_with("matmul__"));
    return rule(self, operand);
}
template <Text name, Operator rule, Text operand = "other"> pysupport::Member operator_of(const char *doc) {
    return taking<name, checked_operator<name, rule>, operand>(doc);
}

using Assignment = void (*)(PyObject *self, PyObject *key, PyObject *value);

template <Text name, Text key, Text value, Assignment rule>
PyObject *assignment_method(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return pysupport::border([&] {
        static const pysupport::Signature signature(name.chars, {key.chars, value.chars}, 2);
        pysupport::Arguments given(signature, 1, args, nargs, kwnames);
        pysupport::need_numpy();
        need_bearable_operand(self, given[1], false);
        rule(self, given[0], given[1]);
        return Ref::none();
    });
}
template <Text name, Text key, Text value, Assignment rule> pysupport::Member assignment(const char *doc) {
    return pysupport::method(name.chars, assignment_method<name, key, value, rule>, doc);
}

// Comparisons, for Model.addConstr.
inline Ref less_equal(PyObject *self, PyObject *rhs) {
    return pysupport::check(mod.core->tempconstr(self, mod.less_equal, rhs));
}
inline Ref greater_equal(PyObject *self, PyObject *rhs) {
    return pysupport::check(mod.core->tempconstr(self, mod.greater_equal, rhs));
}
inline Ref equal(PyObject *self, PyObject *rhs) {
    return pysupport::check(mod.core->tempconstr(self, mod.equal, rhs));
}

} // namespace tarvopy
