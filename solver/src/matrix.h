// matrix.h: the matrix of a model by position, by columns or by rows.
#pragma once

#include "model.h"
#include "tarvo_engine.h"

namespace store {

TRVmatrix matrixbycolumns(TRVmodel &model);
TRVmatrix matrixbyrows(TRVmodel &model);
// The arrays are the store's own; without start where the rows do not lie in one piece.
TRVmatrix rowsinplace(TRVmodel &model);
// By columns, with `value` for the values: those of the matrix, or the store's own where they stand in this order; the
// matrix has none then. Without start where rows in place do as well: an engine turns them in the time of our copy.
// owned: whether the matrix was made; else it is the store's, parked.
TRVmatrix columnsinplace(TRVmodel &model, const double *&value, bool &owned);

// No column comes twice, and they come in order through all rows: by columns the terms stand as they do by rows.
bool ascendingthroughout(const Chunk &chunk);
// Where columns start in such a chunk: ncols and one more.
void columnstarts(const Chunk &chunk, int32_t ncols, int32_t *start);

} // namespace store
