// jacobian.h: the gradients of the nonlinear rows and of the objective at a point.
#pragma once

#include "model.h"
#include "tarvo_engine.h"

namespace store {

TRVmatrix nonlinearjacobian(TRVmodel &model, const double *x);

} // namespace store
