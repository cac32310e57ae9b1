// addSOS: variables in an order, of which few may be nonzero.

#include "new_handle.h"
#include "row_blocks.h"

namespace tarvopy::modelapi {

namespace {

class Members {
  public:
    explicit Members(ModelObject *handle) : handle_(handle) {}

    void collect(PyObject *what, int depth = 0) {
        if (PyObject_TypeCheck(what, core().Var))
            take(reinterpret_cast<ScalarObject *>(what)->cmodel, &reinterpret_cast<ScalarObject *>(what)->id, 1);
        else if (PyObject_TypeCheck(what, matrix().MVar))
            collect_mvar(what);
        else if (PyList_Check(what) || PyTuple_Check(what) || pysupport::is_array(what))
            collect_sequence(what, depth);
        else
            fail(PyExc_TypeError, "addSOS() takes variables, their arrays and lists of them, not '%.200s'",
                 Py_TYPE(what)->tp_name);
    }

    std::vector<int32_t> ids;

  private:
    void take(ModelObject *model, const int32_t *first, int64_t n) {
        require_model(model, handle_, "addSOS() was given variables");
        ids.insert(ids.end(), first, first + n);
    }

    void collect_mvar(PyObject *what) {
        need_numpy();
        ModelObject *model = nullptr;
        Ref found = check(matrix().ids(what, &model));
        PyArrayObject *array = pysupport::as_array(found);
        take(model, static_cast<const int32_t *>(PyArray_DATA(array)), PyArray_SIZE(array));
    }

    void collect_sequence(PyObject *what, int depth) {
        constexpr int deepest = 64;
        if (depth == deepest)
            fail(PyExc_RecursionError, "addSOS() takes lists nested %d deep at most; does one hold itself?", deepest);
        // A tuple of its own: reading a matrix handle's elements may run code that changes the list.
        Ref list = pysupport::is_array(what) ? check(PyObject_CallMethod(what, "ravel", nullptr)) : Ref::borrow(what);
        Ref elements = check(PySequence_Tuple(list.get()));
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(elements.get()); ++i)
            collect(PyTuple_GET_ITEM(elements.get(), i), depth + 1);
    }

    ModelObject *handle_;
};

int kind_of_set(PyObject *object) {
    if (PyLong_Check(object) || PyIndex_Check(object)) {
        long kind = pysupport::check_value(PyNumber_AsSsize_t(object, nullptr));
        if (kind == 1 || kind == 2)
            return kind == 1 ? TRV_GEN_SOS1 : TRV_GEN_SOS2;
    }
    fail(PyExc_ValueError, "the kind of a special ordered set is 1 or 2, not %R", object);
}

// 1, 2, ... where none are given.
std::vector<double> weights_of(PyObject *object, size_t count) {
    std::vector<double> weights(count);
    for (size_t i = 0; i < count; ++i)
        weights[i] = static_cast<double>(i + 1);
    if (!object || object == Py_None)
        return weights;
    Doubles given("weights", object, 0.0);
    Shape shape = given.shape();
    given.spread(shape);
    if (static_cast<size_t>(shape.size) != count)
        fail(PyExc_ValueError, "addSOS() takes one weight for each variable: %zd weights for %zd variables",
             static_cast<Py_ssize_t>(shape.size), static_cast<Py_ssize_t>(count));
    for (size_t i = 0; i < count; ++i)
        weights[i] = given.at(static_cast<int64_t>(i));
    return weights;
}

} // namespace

TARVOPY_METHOD(model_addSOS) {
    static const Signature signature{"addSOS", {"kind", "vars", "weights", "name"}, 2};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        int type = kind_of_set(given[0]);
        Members members(handle);
        members.collect(given[1]);
        std::vector<double> weights = weights_of(given[2], members.ids.size());
        Names names(given[3]);
        Shape shape;
        const TRVnames *own_names = names.block(shape);
        auto count = static_cast<int64_t>(members.ids.size());
        if (count == 0)
            fail(PyExc_ValueError, "addSOS() takes one variable at least");
        std::vector<int64_t> ptr(count + 1);
        for (int64_t i = 0; i <= count; ++i)
            ptr[i] = i;
        std::vector<double> ones(count, 1.0);
        const int64_t whole[] = {0, count};
        const TRVgens gens{1, whole, ptr.data(), members.ids.data(), ones.data(), nullptr, whole, weights.data()};
        NewHandle made(handle, TRV_GENCONSTR, shape, true);
        TRVmodel *store = store_of(handle);
        int32_t first;
        succeed(store, TRVaddgens(store, type, &gens, own_names, &first));
        return made.take(first);
    });
}

} // namespace tarvopy::modelapi
