// addVar and addMVar: from single values and arrays to columns of the store. Without names and with single values
// nothing is made per element, in Python or here.

#include "arguments.h"
#include "new_handle.h"

#include <cmath>

namespace tarvopy::modelapi {

TARVOPY_METHOD(model_addVar) {
    static const Signature signature{"addVar", {"lb", "ub", "obj", "vtype", "name"}, 0};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        double lb = given[0] ? number("lb", given[0]) : 0.0;
        double ub = given[1] ? number("ub", given[1]) : HUGE_VAL;
        double obj = given[2] ? number("obj", given[2]) : 0.0;
        Letters vtype("vtype", given[3], 'C');
        Names names(given[4]);
        const Shape scalar{};
        vtype.spread(scalar);
        const TRVnames *block = names.block(scalar);
        NewHandle made(handle, TRV_VAR, scalar, true);
        TRVmodel *store = store_of(handle);
        int32_t id;
        succeed(store, TRVaddvars(store, 1, &lb, 0, &ub, 0, &obj, 0, vtype.data(), 0, block, &id));
        return made.take(id);
    });
}

TARVOPY_METHOD(model_addMVar) {
    static const Signature signature{"addMVar", {"shape", "lb", "ub", "obj", "vtype", "name"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        Shape shape(given[0]);
        Doubles lb("lb", given[1], 0.0), ub("ub", given[2], HUGE_VAL), obj("obj", given[3], 0.0);
        Letters vtype("vtype", given[4], 'C');
        Names names(given[5]);
        lb.spread(shape);
        ub.spread(shape);
        obj.spread(shape);
        vtype.spread(shape);
        const TRVnames *block = names.block(shape);
        NewHandle made(handle, TRV_VAR, shape, false);
        TRVmodel *store = store_of(handle);
        int32_t first;
        succeed(store, TRVaddvars(store, shape.size, lb.data(), lb.step(), ub.data(), ub.step(), obj.data(), obj.step(),
                                  vtype.data(), vtype.step(), block, &first));
        return made.take(first);
    });
}

} // namespace tarvopy::modelapi
