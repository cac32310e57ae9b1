// Model files and solutions by path; the store reads and writes them, and asks meanwhile whether a signal has come.

#include "modelapi.h"

#include <algorithm>
#include <chrono>
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

// One function of the store that reads or writes a file. Handlers, finalizers and other threads run meanwhile, and are
// kept away from the model: it is half read, or its arrays are being written.
class FileCall {
  public:
    FileCall(ModelObject *handle, TRVmodel *store) : handle_(handle), store_(store), before_(handle->solving) {
        if (!before_)
            handle_->solving = in_file;
        TRVsetstop(store_, signal_raised, this);
    }
    ~FileCall() {
        TRVsetstop(store_, nullptr, nullptr);
        if (!before_)
            handle_->solving = 0;
    }
    FileCall(const FileCall &) = delete;
    FileCall &operator=(const FileCall &) = delete;

    void succeed(int code) {
        if (code == TRV_ERROR_INTERRUPTED && PyErr_Occurred())
            throw PythonError{};
        modelapi::succeed(store_, code);
    }

  private:
    using Clock = std::chrono::steady_clock;

    // Runs the handlers of signals that have come, in the thread where Python runs them; the error of one that raised
    // stays set. Now and then it lets others in: the main thread may have a signal to answer. A busy one keeps the
    // interpreter for 5 ms each time, so more often would make writing many times slower.
    // noexcept: a thread that ends here with the interpreter must not unwind the store (pysupport/ending_threads.cpp).
    static int signal_raised(void *context) noexcept {
        if (PyErr_CheckSignals() != 0)
            return 1;
        auto *call = static_cast<FileCall *>(context);
        const Clock::time_point now = Clock::now();
        if (now - call->others_ran_ > std::chrono::milliseconds(50)) {
            Py_BEGIN_ALLOW_THREADS;
            Py_END_ALLOW_THREADS;
            call->others_ran_ = Clock::now();
        }
        return 0;
    }

    ModelObject *handle_;
    TRVmodel *store_;
    int before_; // an engine writes a file of its own while the model is being solved
    Clock::time_point others_ran_ = Clock::now();
};

} // namespace

TARVOPY_METHOD(model_read) {
    static const Signature signature{"read", {"path"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        Ref path = path_bytes(given[0]);
        const char *text = PyBytes_AS_STRING(path.get());
        TRVmodel *store = store_of(handle);
        FileCall call(handle, store);
        call.succeed(is_solution(text) ? TRVreadsolution(store, text) : TRVreadmodel(store, text));
        return Ref::none();
    });
}

TARVOPY_METHOD(model_write) {
    static const Signature signature{"write", {"path"}, 1};
    return border([&] {
        Arguments given(signature, 0, args, nargs, kwnames);
        ModelObject *handle = handle_of(self);
        Ref path = path_bytes(given[0]);
        const char *text = PyBytes_AS_STRING(path.get());
        TRVmodel *store = store_of(handle);
        succeed(store, TRVupdatemodel(store));
        FileCall call(handle, store);
        call.succeed(is_solution(text) ? TRVwritesolution(store, text) : TRVwritemodel(store, text));
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
        {
            FileCall call(reinterpret_cast<ModelObject *>(given[0]), store);
            call.succeed(TRVwritenl(store, PyBytes_AS_STRING(path.get()), &nvars, &position));
        }
        const std::unique_ptr<int32_t, void (*)(void *)> keeper(position, TRVfree);
        const npy_intp count = nvars;
        Ref array = check(PyArray_SimpleNew(1, &count, NPY_INT32));
        std::copy(position, position + nvars, static_cast<int32_t *>(PyArray_DATA(pysupport::as_array(array))));
        return array;
    });
}

} // namespace tarvopy::modelapi
