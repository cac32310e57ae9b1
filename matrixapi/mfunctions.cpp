// concatenate, hstack and vstack: one result class for the whole sequence, NumPy's routine of the same name for the
// joining.
//
//   vstack([x, y])                  MVar: ids are joined, no Var is made
//   hstack([x, numpy.ones(3)])      MLinExpr: a copy, which shares no element with x
#include "matrixapi/mfunctions.h"

#include "matrixapi/handle.h"
#include "matrixapi/mlinexpr.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/mquadexpr_operators.h"
#include "matrixapi/mvar.h"
#include "matrixapi/operands.h"

#include "pysupport/args.h"

#include <numeric>

namespace tarvopy {

using namespace pysupport;

namespace {

using Members = std::span<PyObject *const>;

// What joins a list of arrays. NumPy's own routines are known to pick and order elements; a stranger may return
// anything, and gets to see the elements themselves, not numbers that stand for them.
struct Routine {
    Ref function;
    bool of_numpy;
    Ref operator()(const Ref &arrays) const { return check(PyObject_CallOneArg(function.get(), arrays.get())); }
};

template <class Convert> Ref list_of(Members members, Convert convert) {
    Ref list = check(PyList_New(0));
    for (PyObject *member : members)
        check_status(PyList_Append(list.get(), convert(member).get()));
    return list;
}

bool all_of_class(Members members, PyObject *cls) {
    return std::all_of(members.begin(), members.end(), [&](PyObject *member) {
        return PyObject_TypeCheck(member, reinterpret_cast<PyTypeObject *>(cls));
    });
}

// ---- handles

// True where all members are ids of one model, whose handle is then in `joined`.
bool share_a_model(Members members, const HandleClass &of, Elements &joined) {
    joined.flat = true;
    for (PyObject *member : members) {
        IdsNative *native = ids_of(member, of);
        if (!native || (native->model && joined.model && !native->model.is(joined.model.get())))
            return false;
        if (native->model)
            joined.model = native->model;
    }
    return !members.empty();
}

Ref join_handles(const Routine &routine, Members members, const HandleClass &of) {
    Elements joined;
    if (!routine.of_numpy || !share_a_model(members, of, joined)) {
        Ref arrays = list_of(members, [&](PyObject *member) { return object_array(member, of); });
        return wrap_objects(of, routine(arrays).get());
    }
    Ref arrays = list_of(members, [&](PyObject *member) { return elements_of(member, of).array; });
    return handle_from_ids(joined, of, routine(arrays)); // NumPy has just made it
}

// ---- linear expressions

bool is_linear_member(PyObject *member) {
    return is_array(member) || is_mvar(member) || is_mlinexpr(member);
}

// A fresh full expression with the member's value.
Ref full_copy(PyObject *member) {
    if (is_mvar(member))
        return from_mvar(mod.MLinExpr, member, true);
    if (is_mlinexpr(member))
        return is_compact(member) ? to_full(member) : copy_full(member);
    if (!is_array(member)) {
        PyErr_SetNone(PyExc_AssertionError);
        throw PythonError{};
    }
    return from_elements(member);
}

// A fresh object array of LinExpr.
Ref copied_linexprs(PyObject *member) {
    return learr(full_copy(member).get());
}

// All members as flat forms over one model; false where one has none.
bool flat_members(const std::vector<Ref> &copies, std::vector<flat::Form> &forms, Ref &model) {
    for (const Ref &copy : copies) {
        flat::Form form;
        Ref owner;
        if (!flat_value(copy.get(), form, owner) || !merge_models(model, owner))
            return false;
        forms.push_back(std::move(form));
    }
    return !forms.empty();
}

// NumPy joins arrays of positions; the forms' rows are then picked by them.
struct Positions {
    Ref array;     // int64, of the result's shape
    int64_t total; // elements of all members
    const int64_t *at() const { return static_cast<const int64_t *>(PyArray_DATA(as_array(array))); }
    flat::Shape shape() const { return shape_of_array(array.get()); }
};

Positions join_positions(const Routine &routine, const std::vector<flat::Shape> &shapes) {
    need_numpy();
    Ref arrays = check(PyList_New(0));
    int64_t total = 0;
    for (flat::Shape shape : shapes) {
        Ref positions = check(PyArray_SimpleNew(static_cast<int>(shape.size()), shape.data(), NPY_INT64));
        auto *at = static_cast<int64_t *>(PyArray_DATA(as_array(positions)));
        std::iota(at, at + flat::size_of(shape), total);
        total += flat::size_of(shape);
        check_status(PyList_Append(arrays.get(), positions.get()));
    }
    Ref joined = routine(arrays);
    joined = check(PyArray_FromAny(joined.get(), PyArray_DescrFromType(NPY_INT64), 0, 0, NPY_ARRAY_CARRAY_RO, nullptr));
    return {std::move(joined), total};
}

Ref join_forms(const Routine &routine, const std::vector<flat::Form> &forms, const Ref &model) {
    std::vector<flat::Shape> shapes;
    for (const flat::Form &form : forms)
        shapes.push_back(form.shape);
    Positions joined = join_positions(routine, shapes);
    flat::Form all = flat::concatenated(forms, {joined.total});
    return make_flat(mod.MLinExpr, flat::gathered(all, joined.at(), joined.shape()), model);
}

Ref join_linear(const Routine &routine, Members members) {
    std::vector<Ref> copies;
    for (PyObject *member : members)
        copies.push_back(full_copy(member));
    std::vector<flat::Form> forms;
    Ref model;
    if (routine.of_numpy && flat_members(copies, forms, model))
        return join_forms(routine, forms, model);
    Ref arrays = check(PyList_New(0));
    for (const Ref &copy : copies)
        check_status(PyList_Append(arrays.get(), learr(copy.get()).get()));
    return check(PyObject_CallOneArg(mod.MLinExpr, routine(arrays).get()));
}

// ---- quadratic expressions

// A fresh full expression with the member's value.
Ref full_quad_copy(PyObject *member) {
    if (is_mquadexpr(member))
        return quad_to_full(member);
    if (!is_linear_member(member)) {
        PyErr_SetNone(PyExc_AssertionError);
        throw PythonError{};
    }
    flat::Shape shape = is_array(member)  ? shape_of_array(member)
                        : is_mvar(member) ? mvar_shape(member)
                                          : shape_of(member);
    Ref full = make_quad_zeros(mod.MQuadExpr, shape, true);
    return check(PyNumber_InPlaceAdd(full.get(), member));
}

bool flat_quad_members(const std::vector<Ref> &copies, std::vector<flat::QuadForm> &forms, Ref &model) {
    for (const Ref &copy : copies) {
        QuadValue value;
        if (!quad_numbers(copy.get(), value) || !merge_models(model, value.model))
            return false;
        forms.push_back(std::move(value.form));
    }
    return !forms.empty();
}

Ref join_quad_elements(const Routine &routine, const std::vector<Ref> &copies) {
    Ref arrays = check(PyList_New(0));
    for (const Ref &copy : copies)
        check_status(PyList_Append(arrays.get(), qearr(copy.get()).get()));
    return routine(arrays);
}

// The linear halves are joined as linear expressions are, the quadratic ones in the same way beside them.
Ref join_quadratic(const Routine &routine, Members members) {
    std::vector<Ref> copies, halves;
    std::vector<PyObject *> linear;
    for (PyObject *member : members) {
        copies.push_back(full_quad_copy(member));
        halves.push_back(Ref::borrow(ndle_of(copies.back().get())));
        linear.push_back(halves.back().get());
    }
    Ref ndle = join_linear(routine, linear);
    std::vector<flat::QuadForm> forms;
    Ref model;
    if (!routine.of_numpy || !flat_quad_members(copies, forms, model)) {
        Ref keywords =
            check(Py_BuildValue("{s:O,s:O}", "ndle", ndle.get(), "qearr", join_quad_elements(routine, copies).get()));
        return check(PyObject_Call(mod.MQuadExpr, check(PyTuple_New(0)).get(), keywords.get()));
    }
    std::vector<flat::Shape> shapes;
    for (const flat::QuadForm &form : forms)
        shapes.push_back(form.shape);
    Positions joined = join_positions(routine, shapes);
    flat::QuadForm all = flat::concatenated(forms, {joined.total});
    return make_quad_flat(mod.MQuadExpr, flat::gathered(all, joined.at(), joined.shape()), std::move(ndle), model);
}

// ---- nonlinear expressions

Ref numpy_object_array(const Ref &object) {
    need_numpy();
    return check(PyArray_FromAny(object.get(), PyArray_DescrFromType(NPY_OBJECT), 0, 0,
                                 NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY, nullptr));
}

// By a stranger's routine, which gets to see the trees.
Ref join_trees(const Routine &routine, Members members) {
    Ref coerce = check(PyObject_GetAttr(mod.MNLExpr, names._coerce_to_exprtree_array));
    Ref arrays = list_of(members, [&](PyObject *member) { return check(PyObject_CallOneArg(coerce.get(), member)); });
    Ref trees = numpy_object_array(routine(arrays));
    npy_intp n = PyArray_SIZE(as_array(trees));
    Ref joined = check(PyArray_SimpleNew(PyArray_NDIM(as_array(trees)), PyArray_DIMS(as_array(trees)), NPY_OBJECT));
    auto **tree = static_cast<PyObject **>(PyArray_DATA(as_array(trees)));
    auto **element = static_cast<PyObject **>(PyArray_DATA(as_array(joined)));
    for (npy_intp i = 0; i < n; ++i)
        Py_XSETREF(element[i], check(mod.core->nlexpr_new(tree[i] ? tree[i] : Py_None)).release());
    return wrap_nlexprs(mod.MNLExpr, std::move(joined));
}

// One node, whose elements are picked from the members' nodes: no tree is made.
Ref join_nonlinear(const Routine &routine, Members members) {
    if (!routine.of_numpy)
        return join_trees(routine, members);
    std::vector<NodeRef> nodes;
    std::vector<flat::Shape> shapes;
    for (PyObject *member : members) {
        NodeView view;
        flat::Shape shape;
        nonlinear_operand(member, kind_of(member), view, shape);
        nodes.push_back(node_of(view, shape));
        shapes.push_back(std::move(shape));
    }
    Positions joined = join_positions(routine, shapes);
    flat::Shape shape = joined.shape();
    auto source = flat::Buffer<int64_t>::copy_of(joined.at(), flat::size_of(shape));
    return make_mnlexpr(mod.MNLExpr, picked_node(std::move(shape), std::move(source), std::move(nodes)));
}

// ---- the rule

// The highest degree among the members, elements of object arrays included.
int degree_of_all(Members members) {
    int degree = 1;
    for (PyObject *member : members) {
        if (!is_linear_member(member) && !is_mquadexpr(member) && !is_mnlexpr(member))
            fail(PyExc_ValueError, "Invalid types for array manipulation routine");
        degree = std::max(degree, degree_of(member, kind_of(member)));
    }
    return degree;
}

// The first class that can hold every member decides.
Ref join(const Routine &routine, Members members) {
    for (const HandleClass *of : {&mvar_handle, &mconstr_handle, &mqconstr_handle, &mgenconstr_handle})
        if (all_of_class(members, of->class_object()))
            return join_handles(routine, members, *of);
    switch (degree_of_all(members)) {
    case 3:
        return join_nonlinear(routine, members);
    case 2:
        return join_quadratic(routine, members);
    default:
        return join_linear(routine, members);
    }
}

Ref apply_routine(const Routine &routine, PyObject *sequence) {
    need_numpy();
    if (is_sparse(sequence))
        csr_of(sequence); // SciPy's own iteration over a damaged matrix reads beyond its arrays
    Ref tuple = check(PySequence_Tuple(sequence)); // nobody else holds it while Python code runs
    return join(routine,
                Members(tuple.as<PyTupleObject>()->ob_item, static_cast<size_t>(PyTuple_GET_SIZE(tuple.get()))));
}

PyObject *apply_manipulation(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_apply_array_manipulation_routine", {"routine", "tup"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        return apply_routine({Ref::borrow(given[0]), false}, given[1]);
    });
}

PyObject *vstack(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"vstack", {"tup"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        return apply_routine({numpy_function(names.vstack), true}, given[0]);
    });
}

PyObject *hstack(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"hstack", {"tup"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        return apply_routine({numpy_function(names.hstack), true}, given[0]);
    });
}

PyObject *concatenate(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"concatenate", {"tup", "axis"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        Ref functools = check(PyImport_ImportModule("functools"));
        Ref partial = check(PyObject_GetAttr(functools.get(), names.partial));
        Ref zero = check(PyLong_FromLong(0));
        Ref function = numpy_function(names.concatenate);
        PyObject *arguments[] = {function.get(), given.get(1, zero.get())};
        Ref keywords = check(PyTuple_Pack(1, names.axis));
        Ref routine = check(PyObject_Vectorcall(partial.get(), arguments, 1, keywords.get()));
        return apply_routine({std::move(routine), true}, given[0]);
    });
}

PyObject *copy_learr(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_copy_learr", {"x"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        return copied_linexprs(given[0]);
    });
}

PyObject *dense(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_dense", {"matrix"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        return is_sparse(given[0]) ? to_dense(given[0]) : check(PyObject_CallMethod(given[0], "toarray", nullptr));
    });
}

PyObject *copy_learr_qearr(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_copy_learr_qearr", {"x"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        Ref copy = full_quad_copy(given[0]);
        Ref linear = learr(ndle_of(copy.get())), quadratic = qearr(copy.get());
        assert_that(shape_of_array(linear.get()) == shape_of_array(quadratic.get()));
        return check(PyTuple_Pack(2, linear.get(), quadratic.get()));
    });
}

template <MethodFunction function> constexpr PyMethodDef entry(const char *name, const char *doc) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)), METH_FASTCALL | METH_KEYWORDS,
            doc};
}

PyMethodDef functions[] = {
    entry<vstack>("vstack", "vstack(tup)\n--\n\nJoins along the first axis, as numpy.vstack (vectors become rows); see "
                            "concatenate."),
    entry<hstack>("hstack", "hstack(tup)\n--\n\nJoins along the second axis (vectors: the first), as numpy.hstack; see "
                            "concatenate."),
    entry<concatenate>("concatenate",
                       "concatenate(tup, axis=0)\n--\n\nJoins variables, expressions and numbers along an axis, as "
                       "numpy.concatenate: an MVar of MVar only, else the expression that holds all. ValueError for "
                       "shapes that do not fit."),
    entry<apply_manipulation>(
        "_apply_array_manipulation_routine",
        "_apply_array_manipulation_routine(routine, tup)\n--\n\nJoins by any routine over a list of arrays."),
    entry<copy_learr>("_copy_learr", "_copy_learr(x)\n--\n\nA fresh object array of LinExpr with the value of x."),
    entry<copy_learr_qearr>("_copy_learr_qearr",
                            "_copy_learr_qearr(x)\n--\n\nA pair of fresh object arrays, of LinExpr and of QuadExpr."),
    entry<dense>("_dense",
                 "_dense(matrix)\n--\n\nThe numbers of a sparse matrix as an array; its indices are checked."),
    {nullptr, nullptr, 0, nullptr},
};

} // namespace

void add_join_functions(PyObject *module) {
    check_status(PyModule_AddFunctions(module, functions));
}

} // namespace tarvopy
