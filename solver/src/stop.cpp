// Whether a long call is to stop (see stop.h).
#include "stop.h"

#include "file_error.h"
#include "model.h"

namespace trv {
namespace {

thread_local const TRVmodel *asked_for = nullptr;

} // namespace

StopScope::StopScope(const TRVmodel *model) : outer_(asked_for) {
    asked_for = model;
}

StopScope::~StopScope() {
    asked_for = outer_;
}

void check_stop() {
    if (asked_for != nullptr && asked_for->stop != nullptr && asked_for->stop(asked_for->stopcontext) != 0) {
        throw FileError{TRV_ERROR_INTERRUPTED, "interrupted"};
    }
}

} // namespace trv

extern "C" void TRVsetstop(TRVmodel *model, int (*stop)(void *context), void *context) {
    if (model != nullptr) {
        model->stop = stop;
        model->stopcontext = context;
    }
}
