// tarvopy._attrutil: bulk transfer of attributes.
//
// The Python functions speak of positions in the model and of lists; the capsule (collaborators/attrutil.h) speaks of
// ids and arrays.
#include "transfer.h"

#include "collaborators/attrutil.h"
#include "pysupport/args.h"
#include "pysupport/numpy.h"
#include "pysupport/sparse.h"

namespace tarvopy::attrutil {

using namespace pysupport;

const CoreApi *core = nullptr;

namespace {

const char *type_name(int kind) {
    switch (kind) {
    case TRV_VAR:
        return "tarvopy.Var";
    case TRV_CONSTR:
        return "tarvopy.Constr";
    case TRV_QCONSTR:
        return "tarvopy.QConstr";
    case TRV_GENCONSTR:
        return "tarvopy.GenConstr";
    default:
        return "tarvopy.NLConstr";
    }
}

} // namespace

const TRVattrinfo *find_attribute_of(int kind, const char *name) {
    const TRVattrinfo *info = TRVfindattr(name);
    if (!info || info->kind != kind)
        fail(PyExc_AttributeError, "'%s' object has no attribute '%.200s'", type_name(kind), name);
    return info;
}

void check_settable(const TRVattrinfo *info) {
    // No integer attribute of an element can be set.
    if (!info->settable || info->type == TRV_INT)
        fail(PyExc_AttributeError, "Attribute '%s' cannot be set", info->name);
}

TRVmodel *open_store(PyObject *model) {
    TRVmodel *store = core->store(model);
    if (!store)
        throw PythonError{};
    return store;
}

void check_store(TRVmodel *store, int code) {
    if (code != TRV_OK) {
        core->raise(store, code);
        throw PythonError{};
    }
}

namespace {

// Whether the ids follow one by one. Judged in whole blocks, which the compiler vectorises: cheaper than the copy that
// it allows.
bool is_run(const int32_t *ids, int64_t n) {
    constexpr uint32_t block = 1024;
    const auto first = static_cast<uint32_t>(ids[0]);
    int64_t i = 0;
    for (; i + block <= n; i += block) {
        const int32_t *part = ids + i;
        const uint32_t expected = first + static_cast<uint32_t>(i);
        uint32_t differences = 0;
        for (uint32_t k = 0; k < block; ++k)
            differences |= static_cast<uint32_t>(part[k]) - (expected + k);
        if (differences)
            return false;
    }
    while (i < n && static_cast<uint32_t>(ids[i]) == first + static_cast<uint32_t>(i))
        ++i;
    return i == n;
}

} // namespace

Ids::Ids(const int32_t *data, int64_t n) : size(n), ids(data), first(n > 0 ? data[0] : 0) {
    if (n > 0 && is_run(data, n))
        ids = nullptr;
}

namespace {

const TRVattrinfo *find_attribute(PyObject *name) {
    const TRVattrinfo *info = TRVfindattr(attribute_name(name));
    if (!info)
        fail(PyExc_AttributeError, "there is no attribute '%U'", name);
    return info;
}

// An empty handle has None for its model; questions about names are answered for it too.
void check_handle(PyObject *model) {
    if (model != Py_None)
        open_store(model);
}

// ---- positions

std::vector<int32_t> read_positions(PyObject *indices) {
    Ref items = pysupport::own_items(indices, "positions are a list"); // an __index__ may change the caller's list
    std::vector<int32_t> positions;
    positions.reserve(static_cast<size_t>(PyTuple_GET_SIZE(items.get())));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.get()); ++i) {
        Py_ssize_t position = check_value(PyNumber_AsSsize_t(PyTuple_GET_ITEM(items.get(), i), PyExc_IndexError));
        // What lies beyond 32 bits is in no model; the store says so for -1.
        positions.push_back(position == static_cast<int32_t>(position) ? static_cast<int32_t>(position) : -1);
    }
    return positions;
}

std::vector<int32_t> ids_at(TRVmodel *store, int kind, const std::vector<int32_t> &positions) {
    std::vector<int32_t> ids(positions.size());
    check_store(store, TRVidsat(store, kind, static_cast<int64_t>(ids.size()), positions.data(), ids.data()));
    return ids;
}

Ids as_ids(const std::vector<int32_t> &ids) {
    return {ids.data(), static_cast<int64_t>(ids.size())};
}

// An attribute of elements, not of the model itself.
const TRVattrinfo *element_attribute(PyObject *name) {
    const TRVattrinfo *info = find_attribute(name);
    if (info->kind == TRV_MODEL)
        fail(PyExc_AttributeError, "'%s' is an attribute of the model", info->name);
    return info;
}

// ---- the listed functions

PyObject *getattrinfo(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_getattrinfo", {"model", "attrname"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        const TRVattrinfo *info = find_attribute(given[1]);
        check_handle(given[0]);
        return check(Py_BuildValue("iii", info->kind, info->type, info->settable));
    });
}

PyObject *gettypedattrlist(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_gettypedattrlist", {"model", "attrname", "indices", "typecode"}, 4};
        Arguments given(signature, 0, args, nargs, kwnames);
        const TRVattrinfo *info = element_attribute(given[1]);
        if (check_value(PyNumber_AsSsize_t(given[3], PyExc_ValueError)) != info->type)
            fail(PyExc_ValueError, "attribute '%s' has the type code %d, not %R", info->name, info->type, given[3]);
        std::vector<int32_t> positions = read_positions(given[2]);
        TRVmodel *store = open_store(given[0]);
        std::vector<int32_t> ids = ids_at(store, info->kind, positions);
        return read_list(store, info, as_ids(ids));
    });
}

PyObject *settypedattrlist(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_settypedattrlist", {"model", "attrname", "indices", "values"}, 4};
        Arguments given(signature, 0, args, nargs, kwnames);
        const TRVattrinfo *info = element_attribute(given[1]);
        check_settable(info);
        std::vector<int32_t> positions = read_positions(given[2]);
        Values values(info, given[3], static_cast<int64_t>(positions.size()));
        TRVmodel *store = open_store(given[0]);
        std::vector<int32_t> ids = ids_at(store, info->kind, positions);
        values.write(store, as_ids(ids));
        return Ref::none();
    });
}

PyObject *prefetchattr(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_prefetchattr", {"model", "attrname"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        find_attribute(given[1]);
        check_handle(given[0]); // all attributes stand in arrays already: nothing needs preparing
        return Ref::none();
    });
}

PyObject *attrlist(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames) {
    return border([&] {
        static const Signature signature{"_attrlist", {"model", "typeenum"}, 2};
        Arguments given(signature, 0, args, nargs, kwnames);
        Py_ssize_t kind = check_value(PyNumber_AsSsize_t(given[1], PyExc_ValueError));
        Ref names = check(PyList_New(0));
        for (int i = 0; const TRVattrinfo *info = TRVattrat(i); ++i)
            if (info->kind == kind) {
                Ref name = check(PyUnicode_FromString(info->name));
                check_status(PyList_Append(names.get(), name.get()));
            }
        return names;
    });
}

// ---- the capsule

Ids ids_of_array(PyObject *ids) {
    return {static_cast<const int32_t *>(PyArray_DATA(as_array(ids))), PyArray_SIZE(as_array(ids))};
}

PyObject *api_get(ModelObject *model, int kind, const char *name, PyObject *ids) {
    return border([&] {
        need_numpy();
        const TRVattrinfo *info = find_attribute_of(kind, name);
        return read_array(open_store(reinterpret_cast<PyObject *>(model)), info, ids_of_array(ids), ids);
    });
}

int api_set(ModelObject *model, int kind, const char *name, PyObject *ids, PyObject *source) {
    return border_status([&] {
        need_numpy();
        const TRVattrinfo *info = find_attribute_of(kind, name);
        check_settable(info);
        Values values(info, source, PyArray_SIZE(as_array(ids)));
        values.write(open_store(reinterpret_cast<PyObject *>(model)), ids_of_array(ids));
    });
}

const AttrApi api = {AttrApi::current_version, api_get, api_set};

// ---- module

template <class F> PyMethodDef row(const char *name, F *function, const char *doc) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)), METH_FASTCALL | METH_KEYWORDS,
            doc};
}

PyMethodDef methods[] = {
    row("_getattrinfo", getattrinfo,
        "_getattrinfo(model, attrname)\n--\n\n(kind, type code, settable) of an attribute; AttributeError for an "
        "unknown name.\n\nType "
        "codes: 0 character, 1 integer, 2 double, 3 string."),
    row("_gettypedattrlist", gettypedattrlist,
        "_gettypedattrlist(model, attrname, indices, typecode)\n--\n\nThe values at positions of the model, as a list; "
        "TarvoError "
        "(NOT_IN_MODEL) for an index that is not there, -1 and below included."),
    row("_settypedattrlist", settypedattrlist,
        "_settypedattrlist(model, attrname, indices, values)\n--\n\nSets one value for each position, or one for all, "
        "as a whole or not at all."),
    row("_prefetchattr", prefetchattr,
        "_prefetchattr(model, attrname)\n--\n\nPrepares a later bulk read (nothing to do for a known attribute)."),
    row("_attrlist", attrlist, "_attrlist(model, typeenum)\n--\n\nThe names of the attributes of a kind of object."),
    {}};

int execute(PyObject *module) {
    return border_status([&] {
        if (!(core = CoreApi::load()))
            throw PythonError{};
        Ref capsule = check(PyCapsule_New(const_cast<AttrApi *>(&api), "tarvopy._attrutil._C_API", nullptr));
        check_status(PyModule_AddObjectRef(module, "_C_API", capsule.get()));
    });
}

PyModuleDef_Slot slots[] = {{Py_mod_exec, reinterpret_cast<void *>(execute)},
                            {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
                            {}};

PyModuleDef definition = {.m_base = PyModuleDef_HEAD_INIT,
                          .m_name = "tarvopy._attrutil",
                          .m_doc = "Bulk transfer of attributes.",
                          .m_size = 0,
                          .m_methods = methods,
                          .m_slots = slots};

} // namespace

} // namespace tarvopy::attrutil

PyMODINIT_FUNC PyInit__attrutil() {
    return PyModuleDef_Init(&tarvopy::attrutil::definition);
}
