// The model's elements: update and removal, lists in the model's order, and look-up by name.

#include "modelapi.h"

#include <vector>

namespace tarvopy::modelapi {

TARVOPY_METHOD(model_update) {
    static const Signature signature{"update", {}, 0};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        TRVmodel *store = store_of(handle_of(self));
        succeed(store, TRVupdatemodel(store));
        return Ref::none();
    });
}

// ---- removal

namespace {

struct Removal {
    int kind;
    std::vector<int32_t> ids;
};

int scalar_kind(PyObject *object) {
    PyTypeObject *type = Py_TYPE(object);
    const CoreApi &api = core();
    return type == api.Var         ? TRV_VAR
           : type == api.Constr    ? TRV_CONSTR
           : type == api.QConstr   ? TRV_QCONSTR
           : type == api.GenConstr ? TRV_GENCONSTR
           : type == api.NLConstr  ? TRV_NLCONSTR
                                   : -1;
}

int matrix_kind(PyObject *object) {
    const MatrixApi &api = matrix();
    return PyObject_TypeCheck(object, api.MVar)         ? TRV_VAR
           : PyObject_TypeCheck(object, api.MConstr)    ? TRV_CONSTR
           : PyObject_TypeCheck(object, api.MQConstr)   ? TRV_QCONSTR
           : PyObject_TypeCheck(object, api.MGenConstr) ? TRV_GENCONSTR
           : PyObject_TypeCheck(object, api.MNLConstr)  ? TRV_NLCONSTR
                                                        : -1;
}

class Removals {
  public:
    explicit Removals(ModelObject *handle) : handle_(handle) {}

    void collect(PyObject *what, int depth = 0) {
        if (int kind = scalar_kind(what); kind >= 0) {
            auto *scalar = reinterpret_cast<ScalarObject *>(what);
            require_model(scalar->cmodel, handle_, "remove() was given an element");
            at(kind).ids.push_back(scalar->id);
        } else if (PyList_Check(what) || PyTuple_Check(what)) {
            collect_sequence(what, depth);
        } else if (int kind = matrix_kind(what); kind >= 0) {
            collect_matrix(kind, what);
        } else {
            fail(PyExc_TypeError, "remove() takes variables, constraints, their arrays and lists of them, not '%.200s'",
                 Py_TYPE(what)->tp_name);
        }
    }

    void apply(TRVmodel *store) const {
        std::vector<TRVremoval> all;
        for (const Removal &removal : removals_)
            all.push_back({removal.kind, static_cast<int64_t>(removal.ids.size()), removal.ids.data()});
        succeed(store, TRVremoveall(store, static_cast<int32_t>(all.size()), all.data()));
    }

  private:
    void collect_sequence(PyObject *sequence, int depth) {
        if (depth == deepest)
            fail(PyExc_RecursionError, "remove() takes lists nested %d deep at most; does one hold itself?", deepest);
        // A tuple of its own: reading a handle's elements may run code that changes the list.
        Ref elements = check(PySequence_Tuple(sequence));
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(elements.get()); ++i)
            collect(PyTuple_GET_ITEM(elements.get(), i), depth + 1);
    }

    void collect_matrix(int kind, PyObject *what) {
        need_numpy();
        ModelObject *model = nullptr;
        Ref ids = check(matrix().ids(what, &model));
        require_model(model, handle_, "remove() was given elements");
        auto *first = static_cast<const int32_t *>(PyArray_DATA(pysupport::as_array(ids)));
        std::vector<int32_t> &all = at(kind).ids;
        all.insert(all.end(), first, first + PyArray_SIZE(pysupport::as_array(ids)));
    }

    Removal &at(int kind) {
        for (Removal &removal : removals_)
            if (removal.kind == kind)
                return removal;
        return removals_.emplace_back(Removal{kind, {}});
    }

    static constexpr int deepest = 64;
    ModelObject *handle_;
    std::vector<Removal> removals_;
};

} // namespace

TARVOPY_METHOD(model_remove) {
    static const Signature signature{"remove", {"what"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        Removals removals(handle);
        removals.collect(given[0]);
        removals.apply(store_of(handle));
        return Ref::none();
    });
}

// ---- lists

namespace {

PyObject *list_of(const Signature &signature, PyObject *self, PyObject *const *args, Py_ssize_t nargs,
                  PyObject *kwnames, int kind, const char *count_attribute) {
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        TRVmodel *store = store_of(handle);
        int count = 0;
        succeed(store, TRVgetintattr(store, count_attribute, &count));
        std::vector<int32_t> positions(count), ids(count);
        for (int i = 0; i < count; ++i)
            positions[i] = i;
        succeed(store, TRVidsat(store, kind, count, positions.data(), ids.data()));
        Ref list = check(PyList_New(count));
        PyObject_GC_UnTrack(list.get()); // nobody sees it half made
        check_status(core().scalars(handle, kind, count, ids.data(), 1, PySequence_Fast_ITEMS(list.get())));
        PyObject_GC_Track(list.get());
        return list;
    });
}

} // namespace

TARVOPY_METHOD(model_getVars) {
    static const Signature signature{"getVars", {}, 0};
    return list_of(signature, self, args, nargs, kwnames, TRV_VAR, "NumVars");
}

TARVOPY_METHOD(model_getConstrs) {
    static const Signature signature{"getConstrs", {}, 0};
    return list_of(signature, self, args, nargs, kwnames, TRV_CONSTR, "NumConstrs");
}

TARVOPY_METHOD(model_getQConstrs) {
    static const Signature signature{"getQConstrs", {}, 0};
    return list_of(signature, self, args, nargs, kwnames, TRV_QCONSTR, "NumQConstrs");
}

TARVOPY_METHOD(model_getGenConstrs) {
    static const Signature signature{"getGenConstrs", {}, 0};
    return list_of(signature, self, args, nargs, kwnames, TRV_GENCONSTR, "NumGenConstrs");
}

TARVOPY_METHOD(model_getNLConstrs) {
    static const Signature signature{"getNLConstrs", {}, 0};
    return list_of(signature, self, args, nargs, kwnames, TRV_NLCONSTR, "NumNLConstrs");
}

// ---- by name

namespace {

PyObject *by_name(const Signature &signature, PyObject *self, PyObject *const *args, Py_ssize_t nargs,
                  PyObject *kwnames, int kind) {
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        if (!PyUnicode_Check(given[0]))
            fail(PyExc_TypeError, "%s() takes a name, not '%.200s'", signature.function, Py_TYPE(given[0])->tp_name);
        Py_ssize_t size;
        const char *name = PyUnicode_AsUTF8AndSize(given[0], &size);
        if (!name)
            throw PythonError{};
        TRVmodel *store = store_of(handle);
        // No name holds a null character, and the store would see a shorter one.
        if (std::char_traits<char>::length(name) != static_cast<size_t>(size))
            return Ref::none();
        int32_t id;
        succeed(store, TRVfindname(store, kind, name, &id));
        return id < 0 ? Ref::none() : check(core().scalar(handle, kind, id));
    });
}

} // namespace

TARVOPY_METHOD(model_getVarByName) {
    static const Signature signature{"getVarByName", {"name"}, 1};
    return by_name(signature, self, args, nargs, kwnames, TRV_VAR);
}

TARVOPY_METHOD(model_getQConstrByName) {
    static const Signature signature{"getQConstrByName", {"name"}, 1};
    return by_name(signature, self, args, nargs, kwnames, TRV_QCONSTR);
}

TARVOPY_METHOD(model_getConstrByName) {
    static const Signature signature{"getConstrByName", {"name"}, 1};
    return by_name(signature, self, args, nargs, kwnames, TRV_CONSTR);
}

} // namespace tarvopy::modelapi
