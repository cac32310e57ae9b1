// Filling the names and collaborators, in the order in which the package's modules are promised to be imported.
#include "matrixapi/names.h"

#include "pysupport/numpy.h"

namespace tarvopy {

using namespace pysupport;

Names names;
Collaborators mod;

void fill_names() {
#define TARVOPY_FILL_NAME(name)                                                                                        \
    if (!names.name)                                                                                                   \
        names.name = check(PyUnicode_InternFromString(#name)).release();
    TARVOPY_NAMES(TARVOPY_FILL_NAME)
#undef TARVOPY_FILL_NAME
}

namespace {

// One `from module import a, b, c`. What a failed import leaves behind is replaced by the next attempt.
class From {
  public:
    explicit From(const char *module) : name_(module) { module_ = check(PyImport_ImportModule(module)); }
    Ref get(const char *attribute) const {
        Ref value = Ref::steal(PyObject_GetAttrString(module_.get(), attribute));
        if (value)
            return value;
        if (PyErr_ExceptionMatches(PyExc_AttributeError))
            fail(PyExc_ImportError, "cannot import name '%s' from '%s'", attribute, name_);
        throw PythonError{};
    }
    void get(const char *attribute, PyObject *&place) const { Py_XSETREF(place, get(attribute).release()); }
    PyObject *module() const { return module_.get(); }

  private:
    const char *name_;
    Ref module_;
};

// The types whose layout this module shares must be as large as the headers say.
void check_layout(const From &core, const char *name, size_t expected) {
    Ref type = core.get(name);
    if (!PyType_Check(type.get()))
        fail(PyExc_TypeError, "tarvopy._core.%s is not a type object", name);
    Py_ssize_t size = type.as<PyTypeObject>()->tp_basicsize;
    if (size != static_cast<Py_ssize_t>(expected))
        fail(PyExc_ValueError,
             "tarvopy._core.%s size changed, may indicate binary incompatibility. Expected %zd, got %zd", name,
             static_cast<Py_ssize_t>(expected), size);
}

void import_core() {
    From core("tarvopy._core");
    for (const char *name :
         {"TempConstr", "Constr", "GenConstr", "QConstr", "Var", "GenExpr", "NLExpr", "NLConstr", "_ExprTree"})
        core.get(name);
    check_layout(core, "LinExpr", sizeof(LinExprObject));
    check_layout(core, "QuadExpr", sizeof(QuadExprObject));
    mod.core = CoreApi::load();
    if (!mod.core)
        throw PythonError{};
}

void import_attributes() {
    From attributes("tarvopy._attrutil");
    attributes.get("_attrlist", mod.attrlist);
    attributes.get("_getattrinfo", mod.getattrinfo);
    attributes.get("_gettypedattrlist", mod.gettypedattrlist);
    attributes.get("_prefetchattr", mod.prefetchattr);
    attributes.get("_settypedattrlist", mod.settypedattrlist);
    mod.attr = AttrApi::load();
    if (!mod.attr)
        throw PythonError{};
}

void import_constants() {
    From("tarvopy._exception").get("TarvoError", mod.TarvoError);
    From("tarvopy._trv").get("TRV", mod.TRV);
    mod.less_equal = check(PyObject_GetAttrString(mod.TRV, "LESS_EQUAL")).release();
    mod.greater_equal = check(PyObject_GetAttrString(mod.TRV, "GREATER_EQUAL")).release();
    mod.equal = check(PyObject_GetAttrString(mod.TRV, "EQUAL")).release();
}

void import_utilities() {
    From util("tarvopy._util");
    util.get("_all_refs_match", mod.all_refs_match);
    util.get("_axis_to_axeslist", mod.axis_to_axeslist);
    util.get("_broadcast_shapes", mod.broadcast_shapes);
    util.get("_isscalar", mod.isscalar);
    util.get("_isstr", mod.isstr);
    util.get("_matmul_shape", mod.matmul_shape);
    util.get("_dense_matmul_kernel", mod.dense_matmul_kernel);
    util.get("_sparse_right_matmul_kernel", mod.sparse_right_matmul_kernel);
    util.get("_sparse_left_matmul_kernel", mod.sparse_left_matmul_kernel);
    mod.ptr = reinterpret_cast<PtrFunction>(import_c_function(util.module(), "tarvopy._util", "_ptr", ptr_signature));
}

PyObject *module_once(PyObject *&place, const char *name) {
    if (!place)
        place = check(PyImport_ImportModule(name)).release();
    return place;
}

PyObject *numpy_cache = nullptr;
PyObject *sparse_cache = nullptr;

} // namespace

void import_collaborators() {
    From("itertools");
    From("collections.abc").get("Iterable", mod.Iterable);
    import_attributes();
    import_core();
    import_constants();
    import_utilities();
}

PyObject *numpy_module() {
    return module_once(numpy_cache, "numpy");
}
PyObject *scipy_sparse() {
    return module_once(sparse_cache, "scipy.sparse");
}

Ref numpy_function(PyObject *name) {
    need_numpy();
    return check(PyObject_GetAttr(numpy_module(), name));
}

bool assertions_enabled() {
    PyObject *flags = PySys_GetObject("flags"); // borrowed
    Ref level = Ref::steal(flags ? PyObject_GetAttrString(flags, "optimize") : nullptr);
    if (!level) {
        PyErr_Clear();
        return true;
    }
    return check_status(PyObject_Not(level.get()));
}

void fail_tarvo(int code, const char *message) {
    mod.core->raise_error(code, message);
    throw PythonError{};
}

} // namespace tarvopy
