// addConstr, addRange and setObjective: the rows of a comparison are written straight where the store keeps them.
//
// lhs - rhs arrives as terms + constant per row, so the bound of a row is minus its constant; an infinite right-hand
// side survives that as "no bound".

#include "arguments.h"

#include <cmath>
#include <memory>

namespace tarvopy::modelapi {

namespace {

enum class Sense { Less, Greater, Equal };

// ---- what is refused, with advice

[[noreturn]] void not_a_comparison(const char *function, PyObject *object) {
    const char *advice = "compare two expressions with <=, >= or ==";
    if (PyBool_Check(object))
        advice =
            "the comparison was evaluated to a truth value before it reached the model, so no variable took part in it";
    else if (pysupport::is_array(object) && PyArray_TYPE(pysupport::as_array(object)) == NPY_BOOL)
        advice = "NumPy has evaluated the comparison already, so no variable took part in it";
    else if (PyObject_TypeCheck(object, core().LinExpr) || PyObject_TypeCheck(object, matrix().MLinExpr))
        advice = "an expression alone is no constraint: compare it with <=, >= or ==";
    else if (PyList_Check(object) || PyTuple_Check(object))
        advice = "add the comparisons one at a time, or compare arrays";
    const char *type = Py_TYPE(object)->tp_name;
    if (PyBool_Check(object))
        fail(PyExc_TypeError, "%s() takes a comparison, not the bool %R: %s", function, object, advice);
    fail(PyExc_TypeError, "%s() takes a comparison, not '%.200s': %s", function, type, advice);
}

void require_linear(const char *function, int degree, PyObject *side) {
    switch (degree) {
    case 0:
    case 1:
        return;
    case 2:
        fail(PyExc_NotImplementedError, "%s() does not take quadratic expressions yet", function);
    case 3:
        fail(PyExc_NotImplementedError, "%s() does not take nonlinear expressions yet", function);
    default:
        if (PyErr_Occurred())
            throw PythonError{};
        if (pysupport::is_array(side))
            fail(PyExc_TypeError, "%s() takes expressions, numbers and arrays of them, not of dtype %S", function,
                 reinterpret_cast<PyObject *>(PyArray_DESCR(pysupport::as_array(side))));
        fail(PyExc_TypeError, "%s() takes expressions, numbers and arrays, not '%.200s'", function,
             Py_TYPE(side)->tp_name);
    }
}

bool says_its_elements(PyObject *object) {
    return PyList_Check(object) || PyTuple_Check(object) ||
           check_status(PyObject_HasAttrStringWithError(object, "__array__"));
}

// The degree of a side. What is no operand but says what its elements are (a list, an object with __array__) becomes an
// array.
int settle_degree(Ref &side) {
    int degree = matrix().degree(side.get());
    if (degree == -2 && says_its_elements(side.get())) {
        need_numpy();
        Ref array = check(PyArray_FromAny(side.get(), nullptr, 0, 0, NPY_ARRAY_ENSUREARRAY, nullptr));
        degree = matrix().degree(array.get());
        if (degree >= 0)
            side = array;
    }
    require_linear("addConstr", degree, side.get());
    return degree;
}

Sense sense_of(PyObject *text) {
    if (PyUnicode_Check(text) && PyUnicode_GET_LENGTH(text) >= 1 && PyUnicode_GET_LENGTH(text) <= 2) {
        Py_UCS4 letter = PyUnicode_READ_CHAR(text, 0);
        bool plain = PyUnicode_GET_LENGTH(text) == 1 || PyUnicode_READ_CHAR(text, 1) == '=';
        if (plain && (letter == '<' || letter == '>' || letter == '='))
            return letter == '<' ? Sense::Less : letter == '>' ? Sense::Greater : Sense::Equal;
    }
    fail(PyExc_ValueError, "the sense of a comparison is '<', '>' or '=', not %R", text);
}

// Numbers on their way into the store, in memory that the next block of rows uses again; not cleared.
struct Freed {
    void operator()(double *memory) const { TRVfree(memory); }
};
using Scratch = std::unique_ptr<double[], Freed>;

Scratch new_doubles(int64_t n) {
    auto *memory = static_cast<double *>(TRVmalloc(sizeof(double) * static_cast<size_t>(n)));
    if (!memory)
        throw std::bad_alloc();
    return Scratch(memory);
}

// ---- a block of rows between the expression and the store

class Rows {
  public:
    Rows(PyObject *lhs, PyObject *rhs) {
        if (matrix().rows_open(lhs, rhs, &block_) < 0)
            throw PythonError{};
    }
    Rows(const Rows &) = delete;
    Rows &operator=(const Rows &) = delete;
    ~Rows() {
        matrix().rows_close(&block_);
        if (store_ && !shared_.release)
            TRVdroprows(store_);
        if (shared_.release)
            shared_.release(shared_.keeper);
    }
    const RowBlock &block() const { return block_; }
    Shape shape() const { return Shape(block_.ndim, block_.shape); }

    void write(int64_t *ptr, int32_t *var, double *coef, double *constants) {
        if (matrix().rows_write(&block_, ptr, var, coef, constants) < 0)
            throw PythonError{};
    }

    // Writes the terms into a block of the store, which this object drops unless it is committed, or holds them ready
    // for the store where they stand; returns the constants.
    Scratch write_into(TRVmodel *store) {
        // At least one entry, so that the pointer is one for zero rows too; not zeroed, since every entry is written.
        Scratch constants = new_doubles(block_.nrows + 1);
        int shared = check_status(matrix().rows_share(&block_, &shared_, constants.get()));
        store_ = store;
        if (shared)
            return constants;
        store_ = nullptr;
        TRVrows rows;
        succeed(store, TRVopenrows(store, block_.nrows, block_.nnz, &rows));
        store_ = store;
        write(rows.ptr, rows.var, rows.coef, constants.get());
        return constants;
    }

    int32_t commit(const double *lower, int lowerstep, const double *upper, int upperstep, const TRVnames *names) {
        TRVmodel *store = std::exchange(store_, nullptr); // a failed commit leaves nothing open
        int32_t first;
        if (shared_.release) {
            TRVsharedrows shared = std::exchange(shared_, {}); // the store's from here on
            succeed(store,
                    TRVsharerows(store, block_.nrows, &shared, lower, lowerstep, upper, upperstep, names, &first));
            return first;
        }
        succeed(store, TRVcommitrows(store, lower, lowerstep, upper, upperstep, names, &first));
        return first;
    }

  private:
    RowBlock block_{};
    TRVsharedrows shared_{};
    TRVmodel *store_ = nullptr;
};

[[noreturn]] void bad_bound(const Rows &rows, int64_t row, const char *what) {
    std::string place = rows.block().scalar ? std::string("the row") : "row " + std::to_string(row) + " of the block";
    refuse(TRV_ERROR_INVALID_ARGUMENT, (place + " " + what).c_str());
}

// A bound that is "none" on the wrong side can never hold.
void check_bound(const Rows &rows, int64_t row, double bound, bool minus_ok, bool plus_ok) {
    if (std::isnan(bound))
        bad_bound(rows, row, "has NaN for its bound: a side is NaN, or both are infinite");
    if (bound <= -TRV_INFINITY && !minus_ok)
        bad_bound(rows, row, "can never hold: its upper bound is minus infinity");
    if (bound >= TRV_INFINITY && !plus_ok)
        bad_bound(rows, row, "can never hold: its lower bound is infinity");
}

// constants become bounds in place; 0.0 - c, so that no bound becomes -0.0. Returns whether some row has none.
bool to_bounds(const Rows &rows, double *constants, Sense sense) {
    bool minus_ok = sense == Sense::Greater, plus_ok = sense == Sense::Less, free = false;
    for (int64_t i = 0; i < rows.block().nrows; ++i) {
        double bound = 0.0 - constants[i];
        if (!(std::fabs(bound) < TRV_INFINITY)) [[unlikely]] {
            check_bound(rows, i, bound, minus_ok, plus_ok);
            free = true;
        }
        constants[i] = bound;
    }
    return free;
}

// Rows that were written as >= but have no bound: the store sees no side of theirs, and would take an RHS that is set
// later for the right-hand side of <=.
void free_rows_keep_their_sense(TRVmodel *store, int32_t first, int64_t nrows, const double *lower) {
    std::vector<int32_t> ids;
    for (int64_t i = 0; i < nrows; ++i)
        if (lower[i] <= -TRV_INFINITY)
            ids.push_back(first + static_cast<int32_t>(i));
    succeed(store, TRVsetchars(store, "Sense", static_cast<int64_t>(ids.size()), ids.data(), 0, ">", 0));
}

Ref constraint_handle(ModelObject *handle, TRVmodel *store, const Shape &shape, int32_t first, bool scalar) {
    PyObject *made = scalar ? core().scalar(handle, TRV_CONSTR, first)
                            : matrix().mconstr(matrix().MConstr, handle, first, shape.ndim, shape.dims);
    if (made)
        return Ref::steal(made);
    std::vector<int32_t> ids(shape.size);
    for (int64_t i = 0; i < shape.size; ++i)
        ids[i] = first + static_cast<int32_t>(i);
    TRVremove(store, TRV_CONSTR, shape.size, ids.data());
    throw PythonError{};
}

} // namespace

TARVOPY_METHOD(model_addConstr) {
    static const Signature signature{"addConstr", {"tempconstr", "name"}, 1};
    return border([&] {
        Arguments given(signature, 1, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        if (!PyObject_TypeCheck(given[0], core().TempConstr))
            not_a_comparison("addConstr", given[0]);
        // Owned here: reading the sides may run code that lets go of the comparison.
        auto *comparison = reinterpret_cast<TempConstrObject *>(given[0]);
        Ref lhs = Ref::borrow(comparison->lhs), rhs = Ref::borrow(comparison->rhs);
        Sense sense = sense_of(comparison->sense);
        Names names(given[1]);
        int left = settle_degree(lhs), right = settle_degree(rhs);
        if (left == 0 && right == 0)
            fail(PyExc_TypeError,
                 "addConstr() takes a comparison with a variable or an expression in it, not of two numbers");

        Rows rows(lhs.get(), rhs.get());
        require_model(rows.block().model, handle, "the comparison has variables");
        Shape shape = rows.shape();
        const TRVnames *block = names.block(shape);
        TRVmodel *store = store_of(handle);
        Scratch bounds = rows.write_into(store);
        bool free = to_bounds(rows, bounds.get(), sense);
        static const double minus = -HUGE_VAL, plus = HUGE_VAL;
        const double *lower = sense == Sense::Less ? &minus : bounds.get();
        const double *upper = sense == Sense::Greater ? &plus : bounds.get();
        int32_t first = rows.commit(lower, sense != Sense::Less, upper, sense != Sense::Greater, block);
        if (free && sense == Sense::Greater)
            free_rows_keep_their_sense(store, first, shape.size, lower);
        return constraint_handle(handle, store, shape, first, rows.block().scalar);
    });
}

namespace {

// Zeros that broadcast an expression to this shape; one number in memory.
Ref zeros_of(const Shape &shape) {
    static double zero = 0.0;
    npy_intp strides[NPY_MAXDIMS] = {};
    return check(PyArray_New(&PyArray_Type, shape.ndim, shape.dims, NPY_DOUBLE, strides, &zero, 0, 0, nullptr));
}

} // namespace

TARVOPY_METHOD(model_addRange) {
    static const Signature signature{"addRange", {"expr", "lb", "ub", "name"}, 3};
    return border([&] {
        Arguments given(signature, 1, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        int degree = matrix().degree(given[0]);
        require_linear("addRange", degree, given[0]);
        if (degree == 0)
            fail(PyExc_TypeError, "addRange() takes an expression with variables, not '%.200s'",
                 Py_TYPE(given[0])->tp_name);
        Doubles lb("lb", given[1], 0.0), ub("ub", given[2], 0.0);
        Names names(given[3]);
        Shape sides = lb.shape().joined(ub.shape());
        // A scalar expression between numbers is a scalar row, so it gets no array beside it.
        bool arrays = lb.given_array() || ub.given_array();
        Ref zeros = arrays ? zeros_of(sides) : Ref();

        Rows rows(given[0], zeros.get());
        require_model(rows.block().model, handle, "the expression has variables");
        Shape shape = rows.shape();
        lb.spread(shape);
        ub.spread(shape);
        const TRVnames *block = names.block(shape);
        TRVmodel *store = store_of(handle);
        Scratch lower = rows.write_into(store);
        Scratch upper = new_doubles(shape.size + 1);
        for (int64_t i = 0; i < shape.size; ++i) {
            double constant = lower[i];
            lower[i] = lb.at(i) - constant;
            upper[i] = ub.at(i) - constant;
            check_bound(rows, i, lower[i], true, false);
            check_bound(rows, i, upper[i], false, true);
        }
        int32_t first = rows.commit(lower.get(), 1, upper.get(), 1, block);
        return constraint_handle(handle, store, shape, first, rows.block().scalar);
    });
}

namespace {

int objective_sense(PyObject *sense) {
    if (!sense || sense == Py_None)
        return 0;
    if (PyIndex_Check(sense)) {
        long value = pysupport::check_value(PyNumber_AsSsize_t(sense, PyExc_OverflowError));
        if (value == TRV_MINIMIZE || value == TRV_MAXIMIZE)
            return static_cast<int>(value);
    }
    fail(PyExc_ValueError, "sense is TRV.MINIMIZE (1), TRV.MAXIMIZE (-1) or None, not %R", sense);
}

} // namespace

TARVOPY_METHOD(model_setObjective) {
    static const Signature signature{"setObjective", {"expr", "sense"}, 1};
    return border([&] {
        Arguments given(signature, 1, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        int sense = objective_sense(given[1]);
        require_linear("setObjective", matrix().degree(given[0]), given[0]);
        Rows rows(given[0], nullptr);
        require_model(rows.block().model, handle, "the objective has variables");
        if (rows.block().nrows != 1)
            fail(PyExc_ValueError, "an objective has one element, not shape %s: sum it", rows.shape().text().c_str());
        int64_t terms = rows.block().nnz;
        std::unique_ptr<int32_t[]> vars(new int32_t[terms + 1]);
        Scratch coefs = new_doubles(terms + 1);
        int64_t ptr[2];
        double constant;
        rows.write(ptr, vars.get(), coefs.get(), &constant);
        TRVmodel *store = store_of(handle);
        succeed(store, TRVsetobjective(store, ptr[1], vars.get(), coefs.get(), constant, sense));
        return Ref::none();
    });
}

} // namespace tarvopy::modelapi
