// The handle of elements that are about to be added.
//
//   NewHandle made(handle, TRV_CONSTR, shape, scalar);   for the ids that the store gives next
//   int32_t first = rows.commit(...);                    adds them; on an error the handle is dropped
//   return made.take(first);
//
// Made first, since an addition cannot be taken back without memory: nothing fails any more once the model has changed.
#pragma once

#include "arguments.h"

namespace tarvopy::modelapi {

class NewHandle {
  public:
    // Scalar: one element, else the matrix handle of the shape. Raises nothing where the ids would exceed the store's
    // limit, of which the addition itself complains. Call it before store_of(): it may run Python code.
    NewHandle(ModelObject *handle, int kind, const Shape &shape, bool scalar);
    // Another handle where Python code added elements in between.
    Ref take(int32_t first);

  private:
    ModelObject *handle_;
    int kind_;
    const Shape &shape_;
    bool scalar_;
    int32_t first_;
    Ref made_;
};

} // namespace tarvopy::modelapi
