// qmatrix.h: the quadratic parts of a model by position: the Hessian of the objective and the quadratic rows.
#pragma once

#include "model.h"
#include "tarvo_engine.h"

namespace store {

TRVmatrix hessian(TRVmodel &model);
TRVqmatrix quadraticrows(TRVmodel &model);

} // namespace store
