// The state of MNLExpr: blocks, views of them, and the NLExpr objects made on demand.
#include "matrixapi/dict_members.h"
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mnlexpr.h"

#include "pysupport/args.h"

namespace tarvopy {

using namespace pysupport;

// ---- native forms ---------------------------------------------------------------------------------------------------

NonlinearNative::NonlinearNative(std::shared_ptr<NLBlock> b, Layout l, bool taken_out)
    : Native(Nonlinear), block(std::move(b)), layout(std::move(l)), element(taken_out) {
    block->elements_out += element;
}

NonlinearNative::~NonlinearNative() {
    Ref dead;
    if (element && --block->elements_out == 0)
        dead = std::exchange(block->originals, Ref());
}

NodeView NonlinearNative::view() const {
    return {block->node, layout.offset, {layout.strides(), layout.strides() + layout.ndim()}};
}

flat::Shape NonlinearNative::shape() const {
    return {layout.shape(), layout.shape() + layout.ndim()};
}

namespace {

NonlinearNative *native_form(PyObject *expr) {
    return static_cast<NonlinearNative *>(native_of(expr, Native::Nonlinear));
}

void make_block_objects(NLBlock &block) {
    while (!block.objects) {
        NodeRef node = block.node;
        Ref array = nlexpr_array(node_trees(node), node->shape);
        Ref originals = block.elements_out ? check(PyArray_NewCopy(as_array(array), NPY_CORDER)) : Ref();
        // Making them may have run Python code: objects that are there win, and another node is made instead.
        if (block.objects || block.node.get() != node.get())
            continue;
        block.objects = std::move(array);
        block.originals = std::move(originals);
        block.places = Ref();
        block.node = NodeRef(); // `node` frees what only the block held, after the block is whole
    }
}

// NumPy lets resize(refcheck=False) take the memory away below a view.
void need_whole(const NLBlock &block) {
    if (PyArray_SIZE(as_array(block.objects)) != block.size)
        fail(PyExc_ValueError, "the array behind these elements was resized");
}

Ref made_array(const NonlinearNative &native) {
    std::shared_ptr<NLBlock> block = native.block;
    make_block_objects(*block);
    if (native.element)
        return object_scalar(static_cast<PyObject **>(PyArray_DATA(as_array(block->originals)))[native.layout.offset]);
    need_whole(*block);
    return strided_array(NPY_OBJECT, native.layout, PyArray_BYTES(as_array(block->objects)), block->objects);
}

// The documented attribute comes first in the dictionary, whatever was stored before.
void store_array(PyObject *self, const Ref &array) {
    Ref before = Ref::borrow(matrix(self)->dict), dict = check(PyDict_New());
    check_status(PyDict_SetItem(dict.get(), names._nlearr, array.get()));
    if (before)
        check_status(PyDict_Merge(dict.get(), before.get(), 0));
    Ref old = Ref::steal(std::exchange(matrix(self)->dict, dict.release()));
    drop_native(self);
}

void make(PyObject *self) {
    NonlinearNative *native = native_form(self);
    if (!native)
        return;
    need_numpy();
    Ref array = made_array(*native);
    if (matrix(self)->native == native) // the first array stored wins
        store_array(self, array);
}

} // namespace

NonlinearNative *nonlinear_of(PyObject *expr) {
    NonlinearNative *native = native_form(expr);
    if (!native || !native->block->objects)
        return native;
    make(expr);
    return nullptr;
}

flat::Shape nonlinear_shape_of(PyObject *expr) {
    if (NonlinearNative *native = native_form(expr))
        return native->shape();
    Ref array = nlearr(expr);
    if (!is_array(array.get()))
        fail(PyExc_TypeError, "_nlearr is no array but a %.200s", Py_TYPE(array.get())->tp_name);
    return shape_of_array(array.get());
}

// ---- making ---------------------------------------------------------------------------------------------------------

Ref make_mnlexpr(PyObject *cls, NodeRef node) {
    Layout layout = Layout::contiguous(static_cast<int>(node->shape.size()), node->shape.data());
    auto block = std::make_shared<NLBlock>();
    block->size = node->size;
    block->node = std::move(node);
    Ref expr = new_instance(cls, std::make_unique<NonlinearNative>(std::move(block), std::move(layout)));
    if (eager)
        make(expr.get());
    return expr;
}

Ref wrap_nlexprs(PyObject *cls, Ref object_array) {
    Ref expr = new_instance(cls, nullptr);
    store(expr.get(), names._nlearr, object_array.get());
    return expr;
}

Ref part_of(const std::shared_ptr<NLBlock> &block, Layout part, bool element) {
    if (!element || !block->objects)
        return new_instance(mod.MNLExpr, std::make_unique<NonlinearNative>(block, std::move(part), element));
    need_whole(*block);
    PyObject *object = static_cast<PyObject **>(PyArray_DATA(as_array(block->objects)))[part.offset];
    return wrap_nlexprs(mod.MNLExpr, object_scalar(object ? object : Py_None));
}

Ref nlexpr_array(const Ref &trees, const flat::Shape &shape) {
    need_numpy();
    std::vector<npy_intp> dimensions(shape.begin(), shape.end());
    Ref array = check(PyArray_SimpleNew(static_cast<int>(shape.size()), dimensions.data(), NPY_OBJECT));
    if (npy_intp n = PyArray_SIZE(as_array(array)))
        check_status(mod.core->nlexprs(n, static_cast<PyObject **>(PyArray_DATA(as_array(trees))),
                                       static_cast<PyObject **>(PyArray_DATA(as_array(array)))));
    return array;
}

// ---- the documented attribute ---------------------------------------------------------------------------------------

Ref nlearr(PyObject *expr) {
    need_numpy();
    return check(PyObject_GetAttr(expr, names._nlearr));
}

namespace {

Ref stored_array(PyObject *self) {
    make(self);
    PyObject *value = stored(self, names._nlearr);
    if (!value)
        fail(PyExc_AttributeError, "'%.100s' object has no attribute '_nlearr'", Py_TYPE(self)->tp_name);
    return Ref::borrow(value);
}

PyObject *get_array(PyObject *self, void *) {
    return border([&] { return stored_array(self); });
}

int set_array(PyObject *self, PyObject *value, void *) {
    return border_status([&] {
        if (value && native_form(self))
            return store_array(self, Ref::borrow(value));
        if (value)
            return store(self, names._nlearr, value);
        stored_array(self);
        check_status(PyDict_DelItem(instance_dict(self), names._nlearr));
    });
}

} // namespace

std::span<Member> nonlinear_state_members() {
    static Member members[] = {
        property("_nlearr", get_array, set_array, "The elements, an object array of NLExpr; made when first read."),
        dict_member<make>(),
        state_member<make>(),
    };
    return members;
}

} // namespace tarvopy
