// The lists of terms of LinExpr and QuadExpr: coefficients (exact Python floats) and variables side by side, outside
// the collector, never handed to Python code.
//
// Float objects are shared wherever terms are copied unscaled, and neighbours that share one share the scaled one too.
#pragma once

#include "state.h"

#include "pysupport/lists.h"

#include <array>
#include <span>
#include <unordered_map>
#include <vector>

namespace tarvopy::core {

using Items = std::span<PyObject *const>; // borrowed, valid as long as nothing else happens to the list

inline Items items_of(PyObject *list) {
    return {PySequence_Fast_ITEMS(list), static_cast<size_t>(PyList_GET_SIZE(list))};
}

// A list of n empty slots, outside the collector; fill all of them before anybody else sees it.
Ref untracked_list(Py_ssize_t n);

// What multiplies: a factor, or a divisor (x / 3 is not x * (1/3) in the last digit).
struct Scaling {
    double number;
    bool divides;
    double operator()(double value) const { return divides ? value / number : value * number; }
    bool is_identity() const { return number == 1.0; }
};
Scaling divisor(PyObject *number); // refuses 0, infinity and NaN

// Fill the empty slots from `at` on.
void fill_vars(const Ref &list, Py_ssize_t at, Items vars);
void fill_coeffs(const Ref &list, Py_ssize_t at, Items coeffs, const Scaling &scaling);
Ref copied_vars(Items vars);
Ref scaled_coeffs(Items coeffs, const Scaling &scaling);

using pysupport::truncate;

// Appends to all lists of equal length or, on failure, to none. A list may be extended by itself.
template <size_t N> void extend_all(const std::array<PyObject *, N> &lists, const std::array<PyObject *, N> &more) {
    Py_ssize_t size = PyList_GET_SIZE(lists[0]);
    bool single = PyList_GET_SIZE(more[0]) == 1;
    for (size_t i = 0; i < N; ++i) {
        int status = single ? PyList_Append(lists[i], PyList_GET_ITEM(more[i], 0)) : PyList_Extend(lists[i], more[i]);
        if (status < 0) {
            while (i > 0)
                truncate(lists[--i], size);
            throw PythonError{};
        }
    }
}

// Sums of coefficients by key, in order of first occurrence. Few terms are searched, many hashed.
template <class Key, class Hash> class Merger {
  public:
    explicit Merger(size_t size) : hashed_(size > 16) {
        if (hashed_)
            places_.reserve(size);
    }
    // kept: what stands for the key in the result, if it is new.
    void add(const Key &key, const Key &kept, double coeff) {
        size_t i = place(key);
        if (i == keys_.size()) {
            keys_.push_back(key);
            this->kept.push_back(kept);
            coeffs.push_back(coeff);
        } else {
            coeffs[i] += coeff;
        }
    }
    Py_ssize_t nonzeros() const {
        Py_ssize_t n = 0;
        for (double coeff : coeffs)
            n += coeff != 0.0;
        return n;
    }
    std::vector<Key> kept;
    std::vector<double> coeffs;

  private:
    size_t place(const Key &key) {
        if (hashed_)
            return places_.try_emplace(key, keys_.size()).first->second;
        size_t i = 0;
        while (i < keys_.size() && keys_[i] != key)
            ++i;
        return i;
    }
    bool hashed_;
    std::vector<Key> keys_;
    std::unordered_map<Key, size_t, Hash> places_;
};

// ---- arguments of addTerms (term_arguments.cpp)
// Variables: a Var, an MVar or variables. Coefficients: a number, spread over n terms, or numbers.
// All Python code that reading them may run has run when these return.
Ref variables_given(PyObject *vars);
Ref coefficients_given(PyObject *coeffs, Py_ssize_t n);

// ---- text and values (term_text.cpp)
// " + 2.0" or " - 2.0"; the first number of a text without the spaces.
void append_signed(std::string &text, double value);
Ref text_object(const std::string &utf8);
std::string number_text(double value); // as Python writes a float
// The solution's values of variables.
std::vector<double> solution_of(Items vars);

} // namespace tarvopy::core
