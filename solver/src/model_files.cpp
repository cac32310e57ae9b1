// Model files by their ending: which reader, which writer.
#include "model_files.h"

#include "file_stream.h"
#include "mps_model.h"
#include "text_scan.h"

namespace trv {
namespace {

bool is_mps(std::string_view path) {
    if (ends_with_gz(path)) {
        path.remove_suffix(3);
    }
    return path.size() > 4 && equal_ignoring_case(path.substr(path.size() - 4), ".mps");
}

void want_mps(const char *path) {
    if (!is_mps(path)) {
        throw FileError{TRV_ERROR_UNSUPPORTED, joined("the ending of ", in_quotes(path), " is none of .mps, .mps.gz")};
    }
}

void want_empty(TRVmodel *model) {
    for (const int kind : {TRV_VAR, TRV_CONSTR, TRV_QCONSTR, TRV_GENCONSTR, TRV_NLCONSTR}) {
        for (std::int32_t id = 0; id < TRVidcount(model, kind); ++id) {
            if (TRVposition(model, kind, id) > -2) {
                throw FileError{TRV_ERROR_INVALID_ARGUMENT, "a model file is read into an empty model only"};
            }
        }
    }
}

} // namespace
} // namespace trv

extern "C" int TRVreadmodel(TRVmodel *model, const char *path) {
    return trv::guarded(model, path, [&] {
        trv::want_mps(path);
        trv::want_empty(model);
        trv::store_mps(model, trv::read_mps(path));
    });
}

extern "C" int TRVwritemodel(TRVmodel *model, const char *path) {
    return trv::guarded(model, path, [&] {
        trv::want_mps(path);
        trv::write_mps(model, path);
    });
}
