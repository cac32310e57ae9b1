// Whether arrays of element objects belong to one model.
#include "functions.h"

#include "pysupport/numpy.h"

namespace tarvopy::util {

using namespace pysupport;

namespace {

bool is_handle(PyTypeObject *type) {
    return type == core->Var || type == core->Constr || type == core->QConstr || type == core->GenConstr ||
           type == core->NLConstr;
}

// The one model met so far, and whether everything fitted it.
class Meeting {
  public:
    bool add(PyObject *element) {
        PyTypeObject *type = Py_TYPE(element);
        if (is_handle(type))
            return add_model(reinterpret_cast<ScalarObject *>(element)->cmodel);
        if (type != core->LinExpr)
            return false;
        PyObject *vars = reinterpret_cast<LinExprObject *>(element)->vars;
        for (Py_ssize_t i = 0; i < PyList_GET_SIZE(vars); ++i)
            if (!add_model(reinterpret_cast<ScalarObject *>(PyList_GET_ITEM(vars, i))->cmodel))
                return false;
        return true;
    }

  private:
    bool add_model(ModelObject *model) {
        if (!model_)
            model_ = model;
        return model_ == model;
    }
    ModelObject *model_ = nullptr; // compared, never followed
};

// The elements of an array in a list of their own, or of another sequence; a single object as a list of one.
Ref elements(PyObject *object) {
    if (is_array(object)) {
        Ref flat = check(PyArray_Ravel(as_array(object), NPY_CORDER));
        return check(PySequence_List(flat.get()));
    }
    if (PyList_Check(object) || PyTuple_Check(object))
        return check(PySequence_List(object));
    Ref list = check(PyList_New(1));
    PyList_SET_ITEM(list.get(), 0, Py_NewRef(object));
    return list;
}

} // namespace

PyObject *all_refs_match(PyObject *, PyObject *const *args, Py_ssize_t nargs) {
    return border([&] {
        Meeting meeting;
        for (Py_ssize_t a = 0; a < nargs; ++a) {
            Ref list = elements(args[a]);
            for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list.get()); ++i)
                if (!meeting.add(PyList_GET_ITEM(list.get(), i)))
                    return Ref::borrow(Py_False);
        }
        return Ref::borrow(Py_True);
    });
}

} // namespace tarvopy::util
