// What users pass for whole arrays, made ready for the store: shapes, values, letters and names.
//
//   Shape shape(given[0]);                     4, (2, 3), [2, 3], ()            refused beyond 2**31 - 1 elements
//   Doubles lb("lb", given[1]);                0.0, a list, any array of numbers
//   lb.spread(shape);                          checks that it broadcasts; one value stays one value (step 0)
//   Names names(given[5], "x");                "x" gives x[0,0], x[0,1], ...; an array of strings names each
//
// Construction may run Python code (__array__, __index__); spread and the pointers run none, so construct everything
// first.
#pragma once

#include "modelapi.h"

#include <string>
#include <vector>

namespace tarvopy::modelapi {

inline constexpr int64_t max_elements = INT32_MAX;

struct Shape {
    int ndim = 0;
    npy_intp dims[NPY_MAXDIMS];
    int64_t size = 1;

    Shape() = default; // 0-dimensional
    explicit Shape(PyObject *object);
    Shape(int ndim, const npy_intp *dims);
    bool operator==(const Shape &other) const;
    bool takes(const Shape &smaller) const; // smaller broadcasts to this one
    Shape joined(const Shape &other) const; // the broadcast of both; ValueError that names both
    std::string text() const;               // (2, 3)
};

Shape shape_of(PyArrayObject *array);
// array as a C-contiguous array of exactly this shape and of the NumPy type number `type` (or of its own when
// flexible).
Ref broadcast(PyArrayObject *array, const Shape &shape, int type);

// A double from anything that says it is one number; TypeError "lb must be a number, not 'str'" otherwise.
double number(const char *what, PyObject *object);

class Doubles {
  public:
    // NULL: the default.
    Doubles(const char *what, PyObject *object, double otherwise);
    void spread(const Shape &shape);
    const double *data() const;
    int step() const { return array_ ? 1 : 0; }
    double at(int64_t i) const { return data_[i * step()]; }
    // An array or a sequence was given, of whatever shape; NumPy's scalars are single values.
    bool given_array() const { return was_array_; }
    Shape shape() const { return array_ ? shape_of(pysupport::as_array(array_)) : Shape(); }

  private:
    const char *what_;
    double single_ = 0;
    Ref array_; // float64 array, or empty for one value
    bool was_array_ = false;
    mutable const double *data_ = &single_;
    int64_t size_ = 1;
};

class Letters {
  public:
    Letters(const char *what, PyObject *object, char otherwise);
    void spread(const Shape &shape);
    const char *data() const { return array_ ? letters_.data() : &single_; }
    int step() const { return array_ ? 1 : 0; }

  private:
    const char *what_;
    char single_;
    Ref array_; // of strings, or empty for one letter
    std::vector<char> letters_;
};

class Names {
  public:
    explicit Names(PyObject *object);
    // For the elements of this shape; NULL where nothing was named. Valid while this object and `shape` live.
    const TRVnames *block(const Shape &shape);

  private:
    TRVnames names_{};
    Ref prefix_;
    bool list_ = false;
    Shape shape_; // of the array of names
    std::string text_;
    std::vector<int64_t> numbers_; // offsets of a list, or the shape for a prefix
};

} // namespace tarvopy::modelapi
