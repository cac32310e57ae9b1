// matrix.h: the matrix of a model by position, by columns or by rows.
#pragma once

#include "model.h"

namespace store {

TRVmatrix matrixbycolumns(TRVmodel &model);
TRVmatrix matrixbyrows(TRVmodel &model);

} // namespace store
