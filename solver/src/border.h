// border.h: the way out of the store. What is thrown inside becomes a return code and the model's error text.
#pragma once

#include "failure.h"
#include "model.h"

#include <exception>
#include <new>
#include <stdexcept>

namespace store {

// Without memory for the message the call is out of memory, which needs none.
inline int keepmessage(TRVmodel *model, int code, const char *text) noexcept {
    try {
        model->error = text;
        return code;
    } catch (...) {
        model->error.clear();
        return TRV_ERROR_OUT_OF_MEMORY;
    }
}

template <class F> int border(TRVmodel *model, F f) noexcept {
    if (!model)
        return TRV_ERROR_INVALID_ARGUMENT;
    try {
        f();
        return TRV_OK;
    } catch (const Failure &failure) {
        return keepmessage(model, failure.code, failure.text.c_str());
    } catch (const std::bad_alloc &) {
        return keepmessage(model, TRV_ERROR_OUT_OF_MEMORY, "out of memory");
    } catch (const std::length_error &) {
        return keepmessage(model, TRV_ERROR_OUT_OF_MEMORY, "out of memory");
    } catch (const std::exception &unexpected) {
        return keepmessage(model, TRV_ERROR_INVALID_ARGUMENT, unexpected.what());
    }
}

} // namespace store
