// Writing into the elements of MNLExpr: the NLExpr objects stay, their roots change, so that whoever shares them sees
// it.
//
//   e[1:] = e[:-1]      the value's trees are read as a whole before anything is written
//   e[[0, 0]] = v       of repeated elements the last one wins
//   e[2] += 1           e's own element changes; with an element that stands twice in an array, twice
//
// NumPy's iterator gives the pairs (element, tree) and the errors about shapes: the target is never broadcast. What it
// gives is gathered first, so that nothing that runs in between can pull an array away.
#include "matrixapi/methods.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mnlexpr.h"
#include "matrixapi/printing.h"

#include <memory>

namespace tarvopy {

using namespace pysupport;

namespace {

struct IteratorEnd {
    void operator()(NpyIter *iterator) const {
        if (iterator)
            NpyIter_Deallocate(iterator);
    }
};
using Iterator = std::unique_ptr<NpyIter, IteratorEnd>;

Ref object_descr() {
    return Ref::steal(reinterpret_cast<PyObject *>(PyArray_DescrFromType(NPY_OBJECT)));
}

// As numpy.nditer makes it; empty selections are fine.
Iterator iterator_over(PyObject *target, PyObject *trees) {
    PyArrayObject *operands[] = {as_array(target), as_array(trees)};
    npy_uint32 operand_flags[] = {NPY_ITER_READONLY | NPY_ITER_NO_BROADCAST, NPY_ITER_READONLY | NPY_ITER_COPY};
    Ref object = object_descr();
    PyArray_Descr *types[] = {object.as<PyArray_Descr>(), object.as<PyArray_Descr>()};
    NpyIter *iterator = NpyIter_MultiNew(
        trees ? 2 : 1, operands, NPY_ITER_REFS_OK | NPY_ITER_EXTERNAL_LOOP | NPY_ITER_BUFFERED | NPY_ITER_ZEROSIZE_OK,
        NPY_KEEPORDER, NPY_SAFE_CASTING, operand_flags, types);
    if (!iterator)
        throw PythonError{};
    return Iterator(iterator);
}

struct Pairs {
    std::vector<Ref> elements, trees; // trees: empty without an operand
};

Ref object_at(const char *place) {
    PyObject *object = *reinterpret_cast<PyObject *const *>(place);
    return Ref::borrow(object ? object : Py_None);
}

Pairs pairs_of(PyObject *target, PyObject *trees) {
    Pairs pairs;
    Iterator iterator = iterator_over(target, trees);
    const auto size = static_cast<size_t>(NpyIter_GetIterSize(iterator.get()));
    if (size == 0)
        return pairs;
    pairs.elements.reserve(size);
    pairs.trees.reserve(trees ? size : 0);
    auto *next = NpyIter_GetIterNext(iterator.get(), nullptr);
    if (!next)
        throw PythonError{};
    char **data = NpyIter_GetDataPtrArray(iterator.get());
    npy_intp *strides = NpyIter_GetInnerStrideArray(iterator.get());
    npy_intp *count = NpyIter_GetInnerLoopSizePtr(iterator.get());
    do {
        for (npy_intp i = 0; i < *count; ++i) {
            pairs.elements.push_back(object_at(data[0] + i * strides[0]));
            if (trees)
                pairs.trees.push_back(object_at(data[1] + i * strides[1]));
        }
    } while (next(iterator.get()));
    if (PyErr_Occurred())
        throw PythonError{};
    return pairs;
}

void need_nlexprs(const std::vector<Ref> &elements) {
    for (const Ref &element : elements)
        if (!PyObject_TypeCheck(element.get(), mod.core->NLExpr))
            fail(PyExc_TypeError, "an MNLExpr holds NLExpr objects, not '%.200s'", Py_TYPE(element.get())->tp_name);
}

Ref root_of(const Ref &element) {
    return Ref::borrow(element.as<NLExprObject>()->root);
}

// Puts the old roots back unless all has gone well.
class Undo {
  public:
    explicit Undo(const std::vector<Ref> &elements) : elements_(elements) { roots_.reserve(elements.size()); }
    ~Undo() {
        if (done_)
            return;
        Ref error = Ref::steal(PyErr_GetRaisedException());
        for (size_t i = roots_.size(); i-- > 0;)
            mod.core->nlexpr_set_root(elements_[i].get(), roots_[i].get());
        PyErr_SetRaisedException(error.release());
    }
    void keep(Ref root) { roots_.push_back(std::move(root)); }
    void done() { done_ = true; }

  private:
    const std::vector<Ref> &elements_;
    std::vector<Ref> roots_;
    bool done_ = false;
};

// An object array of the shape over one slot, for asking NumPy's iterator about shapes.
Ref hollow_array(const flat::Shape &shape) {
    static PyObject *slot = Py_None;
    std::vector<npy_intp> dimensions(shape.begin(), shape.end()), strides(shape.size(), 0);
    return check(PyArray_New(&PyArray_Type, static_cast<int>(shape.size()), dimensions.data(), NPY_OBJECT,
                             strides.data(), &slot, 0, 0, nullptr));
}

} // namespace

void need_in_place_fit(const flat::Shape &target, const flat::Shape &operand) {
    if (broadcast_shapes(target, operand) != target)
        iterator_over(hollow_array(target).get(), hollow_array(operand).get());
}

void update_roots(PyObject *target, const Ref &trees, RootUpdate update, void *context) {
    if (!is_array(target))
        fail(PyExc_TypeError, "_nlearr is no array but a %.200s", Py_TYPE(target)->tp_name);
    Pairs pairs = pairs_of(target, trees.get());
    need_nlexprs(pairs.elements);
    Undo undo(pairs.elements);
    for (size_t i = 0; i < pairs.elements.size(); ++i) {
        Ref before = root_of(pairs.elements[i]);
        Ref after = update(context, before.get(), trees ? pairs.trees[i].get() : nullptr);
        undo.keep(std::move(before));
        check_status(mod.core->nlexpr_set_root(pairs.elements[i].get(), after.get()));
    }
    undo.done();
}

// ---- assignment -----------------------------------------------------------------------------------------------------

namespace {

bool is_assignable(Operand kind) {
    switch (kind) {
    case Operand::Array:
    case Operand::MVar:
    case Operand::MLinExpr:
    case Operand::MQuadExpr:
    case Operand::MNLExpr:
    case Operand::Var:
    case Operand::NLExpr:
    case Operand::Scalar:
        return true;
    default:
        return false;
    }
}

Ref replace_root(void *, PyObject *, PyObject *tree) {
    return Ref::borrow(tree);
}

void assign(PyObject *self, PyObject *key, PyObject *value) {
    Ref selected = check(PyObject_GetItem(nlearr(self).get(), key));
    Ref target = PyArray_Check(selected.get()) ? std::move(selected) : object_scalar(selected.get());
    Operand kind = kind_of(value);
    if (!is_assignable(kind)) {
        Ref text = text_of(value);
        fail(PyExc_ValueError, "Cannot assign %U to MNLExpr", text.get());
    }
    NodeView view;
    flat::Shape shape;
    nonlinear_operand(value, kind, view, shape);
    update_roots(target.get(), tree_array(view, shape), replace_root, nullptr);
}

} // namespace

std::span<Member> nonlinear_assign_members() {
    static Member members[] = {
        assignment<"__setitem__", "obj", "value", assign>(
            "__setitem__($self, obj, value)\n--\n\nGives the selected elements other trees: those of a number, array, "
            "variable or expression,\nspread as NumPy does. Whoever shares the elements sees it; on an error nothing "
            "has changed."),
    };
    return members;
}

} // namespace tarvopy
