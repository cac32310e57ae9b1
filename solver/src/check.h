// check.h: how well a solution holds, whatever the engine says about it.
#pragma once

#include "model.h"
#include "tarvo_engine.h"

#include <vector>

namespace store {

TRVresiduals checksolution(TRVmodel &model, bool hasduals);
// The n worst elements of one figure (TRV_CHECK_...), worst first.
std::vector<TRVoffender> offenders(TRVmodel &model, bool hasduals, int figure, int n);

} // namespace store
