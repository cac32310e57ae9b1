// Model files by their ending: which reader, which writer.
#include "model_files.h"

#include "file_stream.h"
#include "lp_model.h"
#include "mps_model.h"
#include "text_scan.h"

namespace trv {
namespace {

struct Format {
    std::string_view ending;
    FileModel (*read)(const std::string &path);
    void (*write)(TRVmodel *model, const std::string &path);
};

constexpr Format kFormats[] = {
    {".mps", read_mps, write_mps},
    {".qps", read_mps, write_mps},
    {".sif", read_mps, write_mps},
    {".lp", read_lp, write_lp},
};

const Format &format_of(std::string_view path) {
    std::string_view name = path;
    if (ends_with_gz(name)) {
        name.remove_suffix(3);
    }
    for (const Format &format : kFormats) {
        const std::size_t length = format.ending.size();
        if (name.size() > length && equal_ignoring_case(name.substr(name.size() - length), format.ending)) {
            return format;
        }
    }
    throw FileError{TRV_ERROR_UNSUPPORTED,
                    joined("the ending of ", in_quotes(path),
                           " is none of .mps, .qps, .sif, .lp (models), .sol (solutions), each also with .gz")};
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
        const trv::Format &format = trv::format_of(path);
        trv::want_empty(model);
        trv::store_model(model, format.read(path));
    });
}

extern "C" int TRVwritemodel(TRVmodel *model, const char *path) {
    return trv::guarded(model, path, [&] { trv::format_of(path).write(model, path); });
}
