// MConstr, arrays of linear constraints. A near copy of it for each other kind of constraint is made from the same
// members: what differs stands in the class's description (handle.h) and in the few functions here.
#include "matrixapi/constraint_handles.h"

#include "matrixapi/handle_index.h"
#include "matrixapi/printing.h"

#include "pysupport/args.h"

#include <algorithm>

namespace tarvopy {

using namespace pysupport;

const HandleClass mconstr_handle = {TRV_CONSTR,
                                    "MConstr",
                                    "Constr",
                                    &Names::_constrarr,
                                    &Names::_rowno,
                                    &CoreApi::Constr,
                                    &Collaborators::MConstr,
                                    "Constr",
                                    "Constr",
                                    false,
                                    true};
const HandleClass mqconstr_handle = {TRV_QCONSTR,
                                     "MQConstr",
                                     "QConstr",
                                     &Names::_qconstrarr,
                                     &Names::_qconstrno,
                                     &CoreApi::QConstr,
                                     &Collaborators::MQConstr,
                                     "MQConstr",
                                     "MQConstr",
                                     false,
                                     true};
const HandleClass mgenconstr_handle = {TRV_GENCONSTR,
                                       "MGenConstr",
                                       "GenConstr",
                                       &Names::_constrarr,
                                       &Names::_genconstrno,
                                       &CoreApi::GenConstr,
                                       &Collaborators::MGenConstr,
                                       "GenConstr",
                                       "MGenConstr",
                                       true,
                                       false};
const HandleClass mnlconstr_handle = {TRV_NLCONSTR,
                                      "MNLConstr",
                                      "NLConstr",
                                      &Names::_constrarr,
                                      &Names::_nlconstrno,
                                      &CoreApi::NLConstr,
                                      &Collaborators::MNLConstr,
                                      "NLConstr",
                                      "MNLConstr",
                                      true,
                                      false};

namespace {

template <const HandleClass &of>
PyObject *construct(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__init__", {&of == &mqconstr_handle ? "qconstrarr" : "constrarr"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        need_numpy();
        if (!PyArray_Check(given[0]) && assertions_enabled()) {
            PyErr_SetNone(PyExc_AssertionError);
            throw PythonError{};
        }
        adopt_array(self, of, Ref::borrow(given[0]));
        return Ref::none();
    });
}

[[noreturn]] void fail_wrong_element(const HandleClass &of, PyObject *element) {
    if (of.checks_membership) // these two name no element, to this very text
        fail(PyExc_ValueError, "%s.fromlist expects a list of %ss, '{obj}' is not valid input", of.name, of.element);
    Ref text = text_of(element);
    fail(PyExc_ValueError, "%s.fromlist expects a list of %ss, '%U' is not valid input", of.name, of.element,
         text.get());
}

// A list or tuple of nothing but elements as an array, without what NumPy asks of each item, a microsecond; else empty.
Ref array_of_elements(PyObject *items, const HandleClass &of) {
    if (!PyList_CheckExact(items) && !PyTuple_CheckExact(items))
        return {};
    npy_intp n = PySequence_Fast_GET_SIZE(items);
    PyObject **item = PySequence_Fast_ITEMS(items);
    if (!std::all_of(item, item + n, [&](PyObject *object) { return Py_IS_TYPE(object, of.scalar_type()); }))
        return {};
    Ref array = check(PyArray_SimpleNew(1, &n, NPY_OBJECT));
    auto **slots = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    for (npy_intp i = 0; i < n; ++i)
        Py_XSETREF(slots[i], Py_NewRef(item[i]));
    return array;
}

template <const HandleClass &of>
PyObject *fromlist(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"fromlist", {"constrlist"}, 1};
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        if (Ref plain = array_of_elements(given[0], of))
            return wrap_objects(of, plain.get());
        Ref array = check(PyArray_FromAny(given[0], PyArray_DescrFromType(NPY_OBJECT), 0, 0,
                                          NPY_ARRAY_ENSURECOPY | NPY_ARRAY_ENSUREARRAY, nullptr));
        Ref elements = check(PyObject_GetAttr(array.get(), names.flat));
        Ref list = check(PySequence_List(elements.get()));
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list.get()); ++i)
            if (!PyObject_TypeCheck(PyList_GET_ITEM(list.get(), i), of.scalar_type()))
                fail_wrong_element(of, PyList_GET_ITEM(list.get(), i));
        return wrap_objects(of, array.get());
    });
}

// Under a key that leaves one element: the element itself, made alone.
Ref element_of(const Elements &source, const HandleClass &of, const Ref &id) {
    long value = check_value(PyLong_AsLong(id.get()));
    return check(mod.core->scalar(source.model.as<ModelObject>(), of.kind, static_cast<int32_t>(value)));
}

template <const HandleClass &of>
PyObject *getitem(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__getitem__", {"obj"}, 1};
        Arguments given(signature, 1, args, nargs, kwnames);
        Elements source = elements_of(self, of);
        Ref result = check(PyObject_GetItem(source.array.get(), given[0]));
        if (source.flat)
            return PyArray_IsScalar(result.get(), Integer) ? element_of(source, of, result)
                                                           : handle_from_copy(source, of, result);
        if (PyObject_TypeCheck(result.get(), of.scalar_type()))
            return result;
        return wrap_objects(of, check(PyArray_FromAny(result.get(), nullptr, 0, 0,
                                                      NPY_ARRAY_ENSURECOPY | NPY_ARRAY_ENSUREARRAY, nullptr))
                                    .get());
    });
}

// The model's count of these constraints; what the store answers to an unknown name or a failure is 0.
Ref row_count(PyObject *self, const char *attribute) {
    Ref model = check(PyObject_GetAttr(self, names._cmodel));
    if (model.is_none())
        return Ref::none();
    auto *store = static_cast<TRVmodel *>(mod.ptr(model.get()));
    if (!store)
        throw PythonError{};
    int count = 0;
    TRVgetintattr(store, attribute, &count);
    return check(PyLong_FromLong(count));
}

PyObject *numrows(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_numrows", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return row_count(self, "NumConstrs");
    });
}

PyObject *numqconstrs(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_numqconstrs", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        return row_count(self, "NumQConstrs");
    });
}

// A row beyond the count awaits the update too; the row at the count does not.
bool beyond_count(PyObject *self, const HandleClass &of, const IndexMarks &marks) {
    if (of.checks_membership)
        return false;
    Ref count = row_count(self, &of == &mconstr_handle ? "NumConstrs" : "NumQConstrs");
    return !count.is_none() && marks.largest > check_value(PyLong_AsLong(count.get()));
}

template <const HandleClass &of>
PyObject *repr(PyObject *self, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"__repr__", {}, 0};
        Arguments(signature, 1, args, nargs, kwnames);
        Ref shape = check(PyObject_GetAttr(self, names.shape));
        bool pending = false, removed = false;
        if (!check(PyObject_GetAttr(self, names._cmodel)).is_none()) {
            IndexMarks marks = index_marks(self, of);
            pending = marks.pending || beyond_count(self, of, marks);
            removed = marks.removed;
        }
        return check(PyUnicode_FromFormat("<%s %S%s%s>", of.name, shape.get(),
                                          pending ? " *awaiting model update*" : "", removed ? " (some removed)" : ""));
    });
}

template <const HandleClass &of> std::span<Member> own_members() {
    static Member members[] = {
        method("__init__", construct<of>,
               &of == &mqconstr_handle
                   ? "__init__($self, qconstrarr)\n--\n\nWraps an object array of constraints, which is kept as it is."
                   : "__init__($self, constrarr)\n--\n\nWraps an object array of constraints, which is kept as it is."),
        static_method("fromlist", fromlist<of>,
                      "fromlist(constrlist)\n--\n\nA handle over the given constraints; ValueError for anything else "
                      "in the list."),
        method("__getitem__", getitem<of>,
               "__getitem__($self, obj)\n--\n\nThe constraint where all axes get an int, else a new handle."),
        method("__repr__", repr<of>, "__repr__($self)\n--\n\nShape and state in the model."),
    };
    return members;
}

// doc: NULL for the classes without one.
template <const HandleClass &of> Ref build(const char *doc, std::span<Member> more) {
    Ref space = new_namespace("tarvopy._matrixapi", of.name, doc ? doc : "");
    if (!doc)
        check_status(PyDict_SetItemString(space.get(), "__doc__", Py_None));
    add_handle_members<of>(space.get());
    add_members(space.get(), matrix_base, own_members<of>());
    add_members(space.get(), matrix_base, more);
    if (&of == &mnlconstr_handle)
        check_status(PyDict_SetItem(space.get(), names._attrtype, check(PyLong_FromLong(TRV_NLCONSTR)).get()));
    Ref cls = build_class(of.name, matrix_base, space.get());
    mod.*of.cls = Ref(cls).release();
    return cls;
}

Member row_members[] = {
    method("_numrows", numrows, "_numrows($self)\n--\n\nLinear constraints in the model; None without a model."),
};
Member qconstr_members[] = {
    method("_numqconstrs", numqconstrs,
           "_numqconstrs($self)\n--\n\nQuadratic constraints in the model; None without a model."),
};

} // namespace

Ref build_mconstr_class() {
    return build<mconstr_handle>("Matrix constraint handle, acting as an array of Constr objects.\n"
                                 "    Usually you don't create such objects directly, but receive them as a\n"
                                 "    result of Model.addConstr(MLinExpr).\n    ",
                                 row_members);
}

Ref build_mqconstr_class() {
    return build<mqconstr_handle>("Matrix quadratic constraint handle, acting as an array of QConstr objects.\n"
                                  "    Usually you don't create such objects directly, but receive them as a\n"
                                  "    result of Model.addConstr(MQuadExpr ...).\n    ",
                                  qconstr_members);
}

Ref build_mgenconstr_class() {
    return build<mgenconstr_handle>(nullptr, {});
}
Ref build_mnlconstr_class() {
    return build<mnlconstr_handle>(nullptr, {});
}

} // namespace tarvopy
