// Matrix handles: ids over blocks, and the element objects made from them on demand.
#include "matrixapi/handle.h"

#include <cstring>

namespace tarvopy {

using namespace pysupport;

// ---- layouts

Layout Layout::contiguous(int ndim, const npy_intp *shape) {
    Layout layout(ndim);
    npy_intp step = 1;
    for (int d = ndim - 1; d >= 0; --d) {
        layout.shape()[d] = shape[d];
        layout.strides()[d] = step;
        step *= shape[d];
    }
    return layout;
}

npy_intp Layout::size() const {
    npy_intp size = 1;
    for (int d = 0; d < ndim_; ++d)
        size *= shape()[d];
    return size;
}

bool Layout::is_contiguous() const {
    npy_intp step = 1;
    for (int d = ndim_ - 1; d >= 0; --d) {
        if (shape()[d] != 1 && strides()[d] != step)
            return false;
        step *= shape()[d];
    }
    return true;
}

// ---- arrays over blocks

Ref strided_array(int type, const Layout &layout, char *memory, Ref owner) {
    const npy_intp item = type == NPY_INT32 ? sizeof(int32_t) : sizeof(int64_t); // a pointer is as wide
    npy_intp strides[NPY_MAXDIMS];
    for (int d = 0; d < layout.ndim(); ++d)
        strides[d] = layout.strides()[d] * item;
    Ref array = check(PyArray_New(&PyArray_Type, layout.ndim(), layout.shape(), type, strides,
                                  memory + layout.offset * item, 0, NPY_ARRAY_WRITEABLE, nullptr));
    check_status(PyArray_SetBaseObject(as_array(array), owner.release()));
    return array;
}

namespace {

using IdBuffer = flat::Buffer<int32_t>;

constexpr const char *buffer_capsule = "tarvopy ids";

void free_buffer_capsule(PyObject *capsule) {
    delete static_cast<IdBuffer *>(PyCapsule_GetPointer(capsule, buffer_capsule));
}

Ref id_array(const IdBuffer &ids, const Layout &layout) {
    need_numpy();
    if (ids.empty())
        return check(PyArray_SimpleNew(layout.ndim(), layout.shape(), NPY_INT32));
    auto holder = std::make_unique<IdBuffer>(ids);
    // Never written: the array stays inside this module.
    char *memory = reinterpret_cast<char *>(const_cast<int32_t *>(ids.data()));
    Ref owner = check(PyCapsule_New(holder.get(), buffer_capsule, free_buffer_capsule));
    (void)holder.release();
    return strided_array(NPY_INT32, layout, memory, std::move(owner));
}

// New objects for ids, in an array of its own.
Ref new_objects(const HandleClass &of, const Ref &model, const int32_t *ids, int ndim, const npy_intp *shape) {
    need_numpy();
    Ref array = check(PyArray_SimpleNew(ndim, const_cast<npy_intp *>(shape), NPY_OBJECT));
    npy_intp n = PyArray_SIZE(as_array(array));
    if (n == 0)
        return array;
    auto **slots = static_cast<PyObject **>(PyArray_DATA(as_array(array)));
    // A fresh object array holds NULL in every slot, which NumPy takes for None.
    check_status(mod.core->scalars(model.as<ModelObject>(), of.kind, n, ids, 1, slots));
    return array;
}

// The objects of the block, as the layout sees them.
Ref object_view(const HandleClass &of, const Ref &model, BlockRef block, const Layout &layout) {
    if (!block)
        return new_objects(of, model, nullptr, layout.ndim(), layout.shape());
    if (!block->objects) {
        npy_intp n = block->ids.size();
        Ref made = new_objects(of, model, block->ids.data(), 1, &n);
        if (!block->objects) // making them may have run Python code that looked too
            block->objects = std::move(made);
    }
    // NumPy lets resize(refcheck=False) take the memory away below a view.
    if (PyArray_SIZE(as_array(block->objects)) != block->ids.size())
        fail(PyExc_ValueError, "the array behind these elements was resized");
    return strided_array(NPY_OBJECT, layout, PyArray_BYTES(as_array(block->objects)), block->objects);
}

// Documented attributes come first in the dictionary, whatever was stored before.
void store_first(PyObject *self, const HandleClass &of, const Ref &array, PyObject *model) {
    Ref before = Ref::borrow(matrix(self)->dict);
    Ref dict = check(PyDict_New());
    check_status(PyDict_SetItem(dict.get(), of.array_name(), array.get()));
    check_status(PyDict_SetItem(dict.get(), names._cmodel, model));
    if (before)
        check_status(PyDict_Merge(dict.get(), before.get(), 0));
    Ref old = Ref::steal(std::exchange(matrix(self)->dict, dict.release()));
    drop_native(self);
}

PyObject *model_or_none(const Ref &model) {
    return model ? model.get() : Py_None;
}

IdsNative *native_handle(PyObject *self, const HandleClass &of) {
    auto *native = static_cast<IdsNative *>(native_of(self, Native::Ids));
    return native && &native->of == &of ? native : nullptr;
}

} // namespace

void make_handle_objects(PyObject *self, const HandleClass &of) {
    IdsNative *native = native_handle(self, of);
    if (!native)
        return;
    Ref model = native->model;
    Ref array = object_view(of, model, native->block, native->layout);
    if (matrix(self)->native == native) // the first array stored wins
        store_first(self, of, array, model_or_none(model));
}

void replace_handle_objects(PyObject *self, const HandleClass &of, PyObject *array) {
    IdsNative *native = native_handle(self, of);
    if (!native)
        return;
    Ref model = native->model;
    if (array)
        return store_first(self, of, Ref::borrow(array), model_or_none(model));
    store(self, names._cmodel, model_or_none(model));
    drop_native(self);
}

Ref array_over(const flat::Buffer<int32_t> &ids, int ndim, const npy_intp *shape) {
    return id_array(ids, Layout::contiguous(ndim, shape));
}

// ---- handles

IdsNative *ids_of(PyObject *self, const HandleClass &of) {
    IdsNative *native = native_handle(self, of);
    if (native && native->block && native->block->objects) {
        make_handle_objects(self, of);
        return nullptr;
    }
    return native;
}

Ref new_handle(const HandleClass &of, PyObject *cls, Ref model, BlockRef block, Layout layout) {
    bool has_elements = block && layout.size() > 0;
    if (!has_elements || model.is_none()) {
        model = Ref();
        block = BlockRef();
    }
    if (has_elements && !block)
        fail(PyExc_TypeError, "elements without a model");
    Ref handle =
        new_instance(cls, std::make_unique<IdsNative>(of, std::move(model), std::move(block), std::move(layout)));
    if (eager)
        make_handle_objects(handle.get(), of);
    return handle;
}

Ref new_handle(const HandleClass &of, Ref model, flat::Buffer<int32_t> ids, int ndim, const npy_intp *shape) {
    return new_handle(of, of.class_object(), std::move(model), BlockRef(std::move(ids)),
                      Layout::contiguous(ndim, shape));
}

Ref object_array(PyObject *self, const HandleClass &of) {
    need_numpy();
    return check(PyObject_GetAttr(self, of.array_name()));
}

Ref element_array(PyObject *self, const HandleClass &of, npy_intp limit) {
    IdsNative *native = ids_of(self, of);
    if (!native)
        return object_array(self, of);
    if (native->layout.size() > limit)
        return elements_of(self, of).array;
    flat::Shape shape;
    IdBuffer ids;
    Ref model;
    handle_ids(self, of, ids, shape, model);
    return new_objects(of, model, ids.data(), static_cast<int>(shape.size()), shape.data());
}

void adopt_array(PyObject *self, const HandleClass &of, const Ref &array) {
    Ref size = check(PyObject_GetAttr(array.get(), names.size));
    Ref model = Ref::none();
    if (check_status(PyObject_IsTrue(size.get()))) {
        Ref elements = check(PyObject_GetAttr(array.get(), names.flat));
        Ref zero = check(PyLong_FromLong(0));
        Ref first = check(PyObject_GetItem(elements.get(), zero.get()));
        model = check(PyObject_GetAttr(first.get(), names._cmodel));
    }
    if (Py_TYPE(self) == reinterpret_cast<PyTypeObject *>(of.class_object())) {
        store_first(self, of, array, model.get());
    } else { // a child class may have its own __setattr__
        check_status(PyObject_SetAttr(self, of.array_name(), array.get()));
        check_status(PyObject_SetAttr(self, names._cmodel, model.get()));
    }
}

Ref wrap_objects(const HandleClass &of, PyObject *array) {
    return check(PyObject_CallOneArg(of.class_object(), array));
}

// ---- structure

Elements elements_of(PyObject *self, const HandleClass &of) {
    need_numpy();
    if (IdsNative *native = ids_of(self, of)) {
        Ref array = native->block ? id_array(native->block->ids, native->layout) : id_array({}, native->layout);
        return {true, std::move(array), native->model, native->block};
    }
    return {false, object_array(self, of), {}, {}};
}

namespace {

// One id that NumPy gave as a scalar.
Ref handle_from_scalar(const Elements &source, const HandleClass &of, const Ref &scalar) {
    long id = check_value(PyLong_AsLong(scalar.get()));
    auto value = static_cast<int32_t>(id);
    return new_handle(of, of.class_object(), source.model, BlockRef(IdBuffer::copy_of(&value, 1)), Layout(0));
}

Layout layout_of(PyArrayObject *array, const int32_t *origin) {
    Layout layout(PyArray_NDIM(array));
    for (int d = 0; d < layout.ndim(); ++d) {
        layout.shape()[d] = PyArray_DIM(array, d);
        layout.strides()[d] = PyArray_STRIDE(array, d) / static_cast<npy_intp>(sizeof(int32_t));
    }
    layout.offset = static_cast<const int32_t *>(PyArray_DATA(array)) - origin;
    return layout;
}

// A block with the memory of an array that nobody else holds: its gaps too, so that strides carry over.
Ref handle_over_own_memory(const Elements &source, const HandleClass &of, PyArrayObject *array) {
    const auto *data = static_cast<const int32_t *>(PyArray_DATA(array));
    const int32_t *first = data, *last = data;
    for (int d = 0; d < PyArray_NDIM(array); ++d) {
        npy_intp reach =
            PyArray_STRIDE(array, d) / static_cast<npy_intp>(sizeof(int32_t)) * (PyArray_DIM(array, d) - 1);
        (reach < 0 ? first : last) += reach;
    }
    return new_handle(of, of.class_object(), source.model, BlockRef(IdBuffer::copy_of(first, last - first + 1)),
                      layout_of(array, first));
}

bool is_view_of(const BlockRef &block, PyArrayObject *array) {
    const auto *data = static_cast<const int32_t *>(PyArray_DATA(array));
    return block && data >= block->ids.data() && data < block->ids.data() + block->ids.size();
}

Ref id_result(const Ref &result) {
    if (PyArray_Check(result.get()) && PyArray_TYPE(as_array(result)) == NPY_INT32)
        return result;
    return check(PyArray_FromAny(result.get(), PyArray_DescrFromType(NPY_INT32), 0, 0, NPY_ARRAY_DEFAULT, nullptr));
}

} // namespace

Ref handle_from_ids(const Elements &source, const HandleClass &of, const Ref &result) {
    if (PyArray_IsScalar(result.get(), Integer))
        return handle_from_scalar(source, of, result);
    Ref ids = id_result(result);
    PyArrayObject *array = as_array(ids);
    if (PyArray_SIZE(array) == 0)
        return new_handle(of, of.class_object(), {}, {}, Layout::contiguous(PyArray_NDIM(array), PyArray_DIMS(array)));
    if (!PyArray_ISWRITEABLE(array)) // numpy.require would copy it too
        return handle_from_copy(source, of, ids);
    if (is_view_of(source.block, array))
        return new_handle(of, of.class_object(), source.model, source.block,
                          layout_of(array, source.block->ids.data()));
    return handle_over_own_memory(source, of, array);
}

Ref handle_from_copy(const Elements &source, const HandleClass &of, const Ref &result) {
    if (PyArray_IsScalar(result.get(), Integer))
        return handle_from_scalar(source, of, result);
    Ref ids = id_result(result);
    if (PyArray_SIZE(as_array(ids)) == 0)
        return handle_from_ids(source, of, ids);
    Ref copy = check(PyArray_NewCopy(as_array(ids), NPY_ANYORDER));
    return handle_over_own_memory(source, of, as_array(copy));
}

// ---- reading

namespace {

// Ids of a layout in C order.
IdBuffer gathered_ids(const IdBuffer &ids, const Layout &layout) {
    npy_intp size = layout.size();
    if (layout.is_contiguous() && layout.offset == 0 && size == ids.size())
        return ids;
    if (layout.is_contiguous() && ids.counts())
        return IdBuffer::counting_from(ids.counting() + static_cast<int32_t>(layout.offset), size);
    IdBuffer out(size);
    if (layout.is_contiguous()) {
        std::copy_n(ids.data() + layout.offset, size, out.write());
        return out;
    }
    const int ndim = layout.ndim(); // at least one axis, or the layout would be contiguous
    const npy_intp inner = layout.shape()[ndim - 1], step = layout.strides()[ndim - 1];
    std::vector<npy_intp> at(static_cast<size_t>(ndim), 0);
    npy_intp row = layout.offset;
    int32_t *write = out.write();
    const bool counts = ids.counts();
    const int32_t first = counts ? ids.counting() : 0, *values = counts ? nullptr : ids.data();
    for (npy_intp rows = size / inner; rows > 0; --rows) {
        if (counts)
            for (npy_intp k = 0; k < inner; ++k)
                *write++ = first + static_cast<int32_t>(row + k * step);
        else
            for (npy_intp k = 0; k < inner; ++k)
                *write++ = values[row + k * step];
        for (int d = ndim - 2; d >= 0; --d) {
            row += layout.strides()[d];
            if (++at[static_cast<size_t>(d)] < layout.shape()[d])
                break;
            row -= layout.strides()[d] * layout.shape()[d];
            at[static_cast<size_t>(d)] = 0;
        }
    }
    return out;
}

// Ids of an object array, if all its elements are of the class's scalar type and of one model. Runs no Python code.
bool ids_of_objects(PyArrayObject *array, const HandleClass &of, IdBuffer &ids, Ref &model) {
    PyTypeObject *type = of.scalar_type();
    npy_intp n = PyArray_SIZE(array);
    ids = IdBuffer(n);
    model = Ref();
    if (n == 0)
        return true;
    Ref iterator = check(PyArray_IterNew(reinterpret_cast<PyObject *>(array)));
    auto *at = iterator.as<PyArrayIterObject>();
    PyObject *handle = nullptr;
    for (int32_t *write = ids.write(); at->index < at->size; ++write) {
        PyObject *element = *reinterpret_cast<PyObject **>(PyArray_ITER_DATA(at));
        if (!element || !PyObject_TypeCheck(element, type))
            return false;
        auto *scalar = reinterpret_cast<ScalarObject *>(element);
        auto *owner = reinterpret_cast<PyObject *>(scalar->cmodel);
        if (!owner || (handle && handle != owner))
            return false;
        handle = owner;
        *write = scalar->id;
        PyArray_ITER_NEXT(at);
    }
    model = Ref::borrow(handle);
    return true;
}

} // namespace

bool handle_ids(PyObject *self, const HandleClass &of, flat::Buffer<int32_t> &ids, flat::Shape &shape, Ref &model) {
    if (IdsNative *native = ids_of(self, of)) {
        model = native->model;
        shape.assign(native->layout.shape(), native->layout.shape() + native->layout.ndim());
        ids = native->block ? gathered_ids(native->block->ids, native->layout) : IdBuffer();
        return true;
    }
    Ref array = object_array(self, of);
    if (!is_array(array.get()) || PyArray_TYPE(as_array(array)) != NPY_OBJECT)
        return false;
    shape.assign(PyArray_DIMS(as_array(array)), PyArray_DIMS(as_array(array)) + PyArray_NDIM(as_array(array)));
    return ids_of_objects(as_array(array), of, ids, model);
}

flat::Shape handle_shape(PyObject *self, const HandleClass &of) {
    if (IdsNative *native = ids_of(self, of))
        return flat::Shape(native->layout.shape(), native->layout.shape() + native->layout.ndim());
    Ref array = object_array(self, of);
    if (!is_array(array.get()))
        fail(PyExc_TypeError, "%U is no array but a %s", of.array_name(), Py_TYPE(array.get())->tp_name);
    return flat::Shape(PyArray_DIMS(as_array(array)), PyArray_DIMS(as_array(array)) + PyArray_NDIM(as_array(array)));
}

namespace {

// int32, laid out like the elements.
Ref empty_indices(const Elements &elements) {
    if (!is_array(elements.array.get()))
        fail(PyExc_TypeError, "the elements are no array but a %s", Py_TYPE(elements.array.get())->tp_name);
    return check(PyArray_NewLikeArray(as_array(elements.array), NPY_KEEPORDER, PyArray_DescrFromType(NPY_INT32), 0));
}

void fill_positions(const Ref &indices, const HandleClass &of, const IdBuffer &ids, const Ref &model) {
    if (ids.empty())
        return;
    TRVmodel *store = mod.core->store(model.get());
    if (!store)
        throw PythonError{};
    PyArrayObject *array = as_array(indices);
    if (PyArray_IS_C_CONTIGUOUS(array)) {
        TRVpositions(store, of.kind, ids.size(), ids.data(), 0, static_cast<int32_t *>(PyArray_DATA(array)));
        return;
    }
    Ref ordered = check(PyArray_SimpleNew(PyArray_NDIM(array), PyArray_DIMS(array), NPY_INT32));
    TRVpositions(store, of.kind, ids.size(), ids.data(), 0, static_cast<int32_t *>(PyArray_DATA(as_array(ordered))));
    check_status(PyArray_CopyInto(array, as_array(ordered)));
}

// Elements of any type: their own index attribute, one by one.
void fill_by_name(const Ref &indices, const HandleClass &of, const Ref &array) {
    Ref elements = check(PyObject_GetAttr(array.get(), names.flat));
    Ref list = check(PySequence_List(elements.get()));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list.get()); ++i) {
        Ref index = check(PyObject_GetAttr(PyList_GET_ITEM(list.get(), i), names.*of.index));
        check_status(PyList_SetItem(list.get(), i, index.release()));
    }
    Ref slots = check(PyObject_GetAttr(indices.get(), names.flat));
    Ref all = check(PySlice_New(nullptr, nullptr, nullptr));
    check_status(PyObject_SetItem(slots.get(), all.get(), list.get()));
}

} // namespace

Ref index_array(PyObject *self, const HandleClass &of) {
    Elements elements = elements_of(self, of);
    Ref indices = empty_indices(elements);
    IdBuffer ids;
    flat::Shape shape;
    Ref model;
    bool numbered = handle_ids(self, of, ids, shape, model);
    PyArrayObject *array = as_array(indices);
    if (numbered && shape != flat::Shape(PyArray_DIMS(array), PyArray_DIMS(array) + PyArray_NDIM(array)))
        fail(PyExc_ValueError, "the elements became others while their indices were read");
    if (numbered)
        fill_positions(indices, of, ids, model);
    else
        fill_by_name(indices, of, elements.array);
    return indices;
}

const HandleClass *handle_class(PyObject *object) {
    for (const HandleClass *of :
         {&mvar_handle, &mconstr_handle, &mqconstr_handle, &mgenconstr_handle, &mnlconstr_handle})
        if (of->class_object() && PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject *>(of->class_object())))
            return of;
    return nullptr;
}

} // namespace tarvopy
