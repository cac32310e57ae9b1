// check.h: how well a solution holds, whatever the engine says about it.
#pragma once

#include "model.h"

namespace store {

TRVresiduals checksolution(TRVmodel &model, bool hasduals);

} // namespace store
