// Model files and solutions by path; the store reads and writes them.

#include "modelapi.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <strings.h>

namespace tarvopy::modelapi {

namespace {

// x.sol, x.SOL.gz
bool is_solution(std::string_view path) {
    auto ends = [&](std::string_view ending) {
        return path.size() > ending.size() && strcasecmp(path.data() + path.size() - ending.size(), ending.data()) == 0;
    };
    return ends(".sol") || ends(".sol.gz");
}

// The path in the file system's encoding.
Ref path_bytes(PyObject *object) {
    PyObject *bytes = nullptr;
    if (!PyUnicode_FSConverter(object, &bytes))
        throw PythonError{};
    return Ref::steal(bytes);
}

} // namespace

TARVOPY_METHOD(model_read) {
    static const Signature signature{"read", {"path"}, 1};
    return border([&] {
        Arguments given(signature, 1, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        Ref path = path_bytes(given[0]);
        const char *text = PyBytes_AS_STRING(path.get());
        TRVmodel *store = store_of(handle);
        if (is_solution(text)) {
            succeed(store, TRVreadsolution(store, text));
            return Ref::none();
        }
        succeed(store, TRVreadmodel(store, text));
        succeed(store, TRVupdatemodel(store));
        return Ref::none();
    });
}

TARVOPY_METHOD(model_write) {
    static const Signature signature{"write", {"path"}, 1};
    return border([&] {
        Arguments given(signature, 1, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        Ref path = path_bytes(given[0]);
        const char *text = PyBytes_AS_STRING(path.get());
        TRVmodel *store = store_of(handle);
        succeed(store, TRVupdatemodel(store));
        succeed(store, is_solution(text) ? TRVwritesolution(store, text) : TRVwritemodel(store, text));
        return Ref::none();
    });
}

TARVOPY_METHOD(function_write_nl) {
    static const Signature signature{"write_nl", {"handle", "path"}, 2};
    (void)self;
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        need_numpy();
        TRVmodel *store = engine_store(given[0]);
        Ref path = path_bytes(given[1]);
        int32_t nvars, *position;
        succeed(store, TRVwritenl(store, PyBytes_AS_STRING(path.get()), &nvars, &position));
        const std::unique_ptr<int32_t, void (*)(void *)> keeper(position, TRVfree);
        const npy_intp count = nvars;
        Ref array = check(PyArray_SimpleNew(1, &count, NPY_INT32));
        std::copy(position, position + nvars, static_cast<int32_t *>(PyArray_DATA(pysupport::as_array(array))));
        return array;
    });
}

} // namespace tarvopy::modelapi
