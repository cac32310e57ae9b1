// matrix.h: the matrix of a model by position, by columns or by rows.
#pragma once

#include "model.h"

namespace store {

TRVmatrix matrixbycolumns(TRVmodel &model);
TRVmatrix matrixbyrows(TRVmodel &model);
// The arrays are the store's own; without start where the rows do not lie in one piece.
TRVmatrix rowsinplace(TRVmodel &model);

} // namespace store
