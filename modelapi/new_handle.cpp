#include "new_handle.h"

namespace tarvopy::modelapi {

namespace {

PyTypeObject *matrix_type(int kind) {
    switch (kind) {
    case TRV_QCONSTR:
        return matrix().MQConstr;
    case TRV_GENCONSTR:
        return matrix().MGenConstr;
    case TRV_NLCONSTR:
        return matrix().MNLConstr;
    default:
        return matrix().MConstr;
    }
}

Ref handle_from(ModelObject *handle, int kind, const Shape &shape, bool scalar, int32_t first) {
    if (scalar)
        return check(core().scalar(handle, kind, first));
    return check(kind == TRV_VAR ? matrix().mvar(handle, first, shape.ndim, shape.dims)
                                 : matrix().mconstr(matrix_type(kind), handle, first, shape.ndim, shape.dims));
}

// Lets objects be made for elements that the store does not have yet.
class Ahead {
  public:
    Ahead(ModelObject *handle, int64_t count) : handle_(handle) { handle->ahead = count; }
    Ahead(const Ahead &) = delete;
    ~Ahead() { handle_->ahead = 0; }

  private:
    ModelObject *handle_;
};

} // namespace

NewHandle::NewHandle(ModelObject *handle, int kind, const Shape &shape, bool scalar)
    : handle_(handle), kind_(kind), shape_(shape), scalar_(scalar), first_(TRVidcount(store_of(handle), kind)) {
    if (shape.size > INT32_MAX - int64_t{first_})
        return;
    Ahead ahead(handle, shape.size);
    made_ = handle_from(handle, kind, shape, scalar, first_);
}

Ref NewHandle::take(int32_t first) {
    return first == first_ ? std::move(made_) : handle_from(handle_, kind_, shape_, scalar_, first);
}

} // namespace tarvopy::modelapi
