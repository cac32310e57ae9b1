// api_model.cpp: attributes of the model itself. None of them updates, so that printing a handle changes nothing.
#include "attributes.h"
#include "border.h"
#include "elementattr.h"

using namespace store;

namespace {

int intof(TRVmodel &model, Attr attr) {
    switch (attr) {
    case Attr::NumVars:
        return model.columns.ids.committed();
    case Attr::NumConstrs:
        return model.rows.ids.committed();
    case Attr::NumQConstrs:
        return model.qrows.ids.committed();
    case Attr::NumGenConstrs:
        return model.gens.ids.committed();
    case Attr::NumNLConstrs:
        return model.nlrows.ids.committed();
    case Attr::Status:
        return model.solution.status();
    case Attr::ModelSense:
        return model.sense;
    default:
        break;
    }
    const int64_t nonzeros = model.rows.nonzeros(model.columns);
    if (nonzeros > INT32_MAX)
        failf(TRV_ERROR_SIZE_LIMIT, "NumNZs: %lld nonzeros do not fit an int", static_cast<long long>(nonzeros));
    return static_cast<int>(nonzeros);
}

double figure(const TRVmodel &model, Attr attr) {
    const TRVresult &figures = model.solution.figures();
    double value = NAN;
    if (model.solution.status() != TRV_NOT_SOLVED) {
        switch (attr) {
        case Attr::ObjVal:
            value = figures.objval;
            break;
        case Attr::ObjBound:
            value = figures.bound;
            break;
        case Attr::Gap:
            value = figures.gap;
            break;
        case Attr::Runtime:
            value = figures.runtime;
            break;
        case Attr::IterCount:
            value = figures.itercount;
            break;
        default:
            value = figures.nodecount;
        }
    }
    if (std::isnan(value))
        failnodata(model, infoof(attr).name);
    return value;
}

} // namespace

int TRVgetintattr(TRVmodel *model, const char *name, int *value) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_INT, false, Access::kRead);
        requirepointer(name, value, 1);
        *value = intof(*model, attr);
    });
}

int TRVsetintattr(TRVmodel *model, const char *name, int value) {
    return border(model, [&] {
        requireattribute(name, TRV_INT, false, Access::kWrite); // ModelSense is the only one
        if (value != TRV_MINIMIZE && value != TRV_MAXIMIZE)
            failf(TRV_ERROR_INVALID_ARGUMENT, "ModelSense is 1 (minimize) or -1 (maximize), not %d", value);
        model->setsense(value);
    });
}

int TRVgetdblattr(TRVmodel *model, const char *name, double *value) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_DOUBLE, false, Access::kRead);
        requirepointer(name, value, 1);
        *value = attr == Attr::ObjConstant ? model->objconstant : figure(*model, attr);
    });
}

int TRVsetdblattr(TRVmodel *model, const char *name, double value) {
    return border(model, [&] {
        requireattribute(name, TRV_DOUBLE, false, Access::kWrite); // ObjConstant is the only one
        if (!isfinite(value))
            failf(TRV_ERROR_INVALID_ARGUMENT, "ObjConstant is %s", number(value).c_str());
        model->setobjconstant(value);
    });
}

int TRVgetstrattr(TRVmodel *model, const char *name, const char **value) {
    return border(model, [&] {
        const Attr attr = requireattribute(name, TRV_STRING, false, Access::kRead);
        requirepointer(name, value, 1);
        if (attr == Attr::EngineName && model->solution.status() == TRV_NOT_SOLVED)
            failnodata(*model, name);
        model->text = attr == Attr::EngineName ? model->solution.engine() : model->name;
        *value = model->text.c_str();
    });
}

int TRVsetstrattr(TRVmodel *model, const char *name, const char *value) {
    return border(model, [&] {
        requireattribute(name, TRV_STRING, false, Access::kWrite); // ModelName is the only one
        requirepointer(name, value, 1);
        model->name = value;
    });
}
