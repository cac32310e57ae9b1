// The border between the file readers, which throw, and the C interface, which returns codes.
#ifndef TARVO_MODEL_FILES_H
#define TARVO_MODEL_FILES_H

#include <exception>
#include <new>

#include "file_error.h"
#include "stop.h"

namespace trv {

template <typename Work> int guarded(TRVmodel *model, const char *path, Work work) {
    if (model == nullptr) {
        return TRV_ERROR_INVALID_ARGUMENT;
    }
    if (path == nullptr || *path == '\0') {
        return TRVfail(model, TRV_ERROR_INVALID_ARGUMENT, "the path of the file is empty");
    }
    const StopScope scope(model);
    try {
        work();
        return TRV_OK;
    } catch (const FileError &error) {
        return TRVfail(model, error.code, error.text.c_str());
    } catch (const std::bad_alloc &) {
        return TRVfail(model, TRV_ERROR_OUT_OF_MEMORY, "out of memory");
    } catch (const std::exception &error) { // the containers' length_error: the same, in other words
        return TRVfail(model, TRV_ERROR_OUT_OF_MEMORY, error.what());
    }
}

} // namespace trv
#endif
