// What the five matrix handles (MVar, MConstr, MQConstr, MGenConstr, MNLConstr) share.
//
// A handle made by the model, or cut out of such a one, is a layout (shape, strides, offset) over a block of ids:
//
//   x = m.addMVar((3, 4))     block: 12 ids, no Var               x[:, 1]    the same block, other strides
//   x._vararr                 makes the block's 12 Var objects once, stores the array and drops the layout
//   x[:, 1]._vararr           a view of the same object array
//
// Once the block has objects, nothing reads its ids any more: somebody may have written another variable into the
// array.
#pragma once

#include "matrixapi/base.h"
#include "matrixapi/flat.h"
#include "matrixapi/names.h"

#include "pysupport/classes.h"
#include "pysupport/numpy.h"

#include <memory>

namespace tarvopy {

// What tells one class of handles from the others.
struct HandleClass {
    int kind;                // TRV_VAR, ...
    const char *name;        // "MVar"
    const char *element;     // "Var"
    PyObject *Names::*array; // the attribute that holds the element objects
    PyObject *Names::*index; // the element's own index attribute
    PyTypeObject *CoreApi::*scalar;
    PyObject *Collaborators::*cls;
    const char *get_refusal; // the type that the refusal of another kind's attribute names, reading and setting
    const char *set_refusal;
    bool checks_membership; // attributes of pending and removed elements are refused
    bool prefetches;

    PyObject *array_name() const { return names.*array; }
    PyObject *class_object() const { return mod.*cls; }
    PyTypeObject *scalar_type() const { return mod.core->*scalar; }
};

extern const HandleClass mvar_handle, mconstr_handle, mqconstr_handle, mgenconstr_handle, mnlconstr_handle;

// Ids and, once somebody looked, the objects of them: shared by all views, so that what is written through one is seen
// by all.
struct Block {
    int64_t count = 1; // references; under the interpreter's lock
    flat::Buffer<int32_t> ids;
    Ref objects; // one-dimensional object ndarray of the same length, or empty
};

class BlockRef {
  public:
    BlockRef() = default;
    explicit BlockRef(flat::Buffer<int32_t> ids) : block_(new Block{1, std::move(ids), {}}) {}
    BlockRef(const BlockRef &other) : block_(other.block_) {
        if (block_)
            ++block_->count;
    }
    BlockRef(BlockRef &&other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
    BlockRef &operator=(BlockRef other) noexcept {
        std::swap(block_, other.block_);
        return *this;
    }
    ~BlockRef() {
        if (block_ && --block_->count == 0)
            delete block_;
    }
    Block *operator->() const { return block_; }
    explicit operator bool() const { return block_ != nullptr; }

  private:
    Block *block_ = nullptr;
};

// Shape and strides (in elements) over a block.
class Layout {
  public:
    Layout() = default;
    explicit Layout(int ndim) : ndim_(ndim) {
        if (ndim > few)
            many_.reset(new npy_intp[2 * static_cast<size_t>(ndim)]);
    }
    static Layout contiguous(int ndim, const npy_intp *shape);
    Layout(const Layout &) = delete;
    Layout(Layout &&) = default;
    Layout &operator=(Layout &&) = default;

    int ndim() const { return ndim_; }
    npy_intp *shape() { return many_ ? many_.get() : inline_; }
    npy_intp *strides() { return shape() + (many_ ? ndim_ : few); }
    const npy_intp *shape() const { return const_cast<Layout *>(this)->shape(); }
    const npy_intp *strides() const { return const_cast<Layout *>(this)->strides(); }
    npy_intp size() const;
    bool is_contiguous() const; // C order without gaps

    npy_intp offset = 0;

  private:
    static constexpr int few = 4;
    int ndim_ = 0;
    npy_intp inline_[2 * few];
    std::unique_ptr<npy_intp[]> many_;
};

// An array of the layout over memory that `owner` keeps alive, writeable.
Ref strided_array(int type, const Layout &layout, char *memory, Ref owner);

struct IdsNative final : Native {
    const HandleClass &of;
    Ref model; // the handle; empty where there is no element
    BlockRef block;
    Layout layout;
    IdsNative(const HandleClass &handle, Ref handle_model, BlockRef ids, Layout ids_layout)
        : Native(Ids), of(handle), model(std::move(handle_model)), block(std::move(ids)),
          layout(std::move(ids_layout)) {}
    int traverse(visitproc visit, void *arg) override {
        Py_VISIT(model.get());
        return 0;
    }
};

// The native form if the ids are the truth for this handle of this class, else NULL (and its objects then stand in the
// dictionary).
IdsNative *ids_of(PyObject *self, const HandleClass &of);
// A new handle; in eager mode with its objects. model: empty or None where there is no element.
Ref new_handle(const HandleClass &of, PyObject *cls, Ref model, BlockRef block, Layout layout);
Ref new_handle(const HandleClass &of, Ref model, flat::Buffer<int32_t> ids, int ndim, const npy_intp *shape);

// Makes: the element array as Python code sees it.
Ref object_array(PyObject *self, const HandleClass &of);
// Makes the objects of a native handle; does nothing to another.
void make_handle_objects(PyObject *self, const HandleClass &of);
// A native handle gets this array instead of its ids (NULL: none); the model stays.
void replace_handle_objects(PyObject *self, const HandleClass &of, PyObject *array);
// The elements in an object array, for reading only: the block stays without objects. A native handle of more than
// `limit` elements gives its ids, where NumPy is about to refuse them by their number.
Ref element_array(PyObject *self, const HandleClass &of, npy_intp limit = NPY_MAX_INTP);
// Stores array and model as the constructors say: `_cmodel` is that of the first element.
void adopt_array(PyObject *self, const HandleClass &of, const Ref &array);
// The class called with an array.
Ref wrap_objects(const HandleClass &of, PyObject *array);

// The elements as an array for NumPy's routines on structure: ids where they are the truth, else the objects.
struct Elements {
    bool flat = false;
    Ref array;
    Ref model;
    BlockRef block;
};
Elements elements_of(PyObject *self, const HandleClass &of);
// A handle over what NumPy made of the ids: a view of the block where it is a view, else a block of its own.
Ref handle_from_ids(const Elements &source, const HandleClass &of, const Ref &result);
// The same, never sharing the block.
Ref handle_from_copy(const Elements &source, const HandleClass &of, const Ref &result);

// Ids in C order, their shape and the model, of a handle in any state. False for foreign elements and for elements of
// several models. Read at once: whoever runs Python code, or asks a child class that makes its array anew each time,
// may meet another shape afterwards.
bool handle_ids(PyObject *self, const HandleClass &of, flat::Buffer<int32_t> &ids, flat::Shape &shape, Ref &model);
// A C-contiguous int32 ndarray over a buffer.
Ref array_over(const flat::Buffer<int32_t> &ids, int ndim, const npy_intp *shape);
flat::Shape handle_shape(PyObject *self, const HandleClass &of);

// Indices in the model (-1 pending, -2 removed): int32, laid out like the elements.
Ref index_array(PyObject *self, const HandleClass &of);

// handle_attributes.cpp
Ref get_attribute(PyObject *self, const HandleClass &of, PyObject *name);
void set_attribute(PyObject *self, const HandleClass &of, PyObject *name, PyObject *value);
void prefetch_attribute(PyObject *self, const HandleClass &of, PyObject *name);
Ref attribute_names(PyObject *self, const HandleClass &of);
Ref type_number(PyObject *self, const HandleClass &of);

// The class of an object as a handle: itself a MVar, MConstr, ... or NULL.
const HandleClass *handle_class(PyObject *object);

// Puts what all handles share into a namespace.
template <const HandleClass &of> void add_handle_members(PyObject *namespace_dict);
extern template void add_handle_members<mvar_handle>(PyObject *);
extern template void add_handle_members<mconstr_handle>(PyObject *);
extern template void add_handle_members<mqconstr_handle>(PyObject *);
extern template void add_handle_members<mgenconstr_handle>(PyObject *);
extern template void add_handle_members<mnlconstr_handle>(PyObject *);

} // namespace tarvopy
