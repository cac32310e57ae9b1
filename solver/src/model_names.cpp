// The names of all elements of one kind, by position (see model_names.h).
#include "model_names.h"

#include <memory>

#include "file_error.h"
#include "stop.h"

namespace trv {
namespace {

struct StoreFree {
    void operator()(void *memory) const { TRVfree(memory); }
};

} // namespace

ModelNames::ModelNames(TRVmodel *model, int kind, std::int32_t count)
    : count_(count), ids_(static_cast<std::size_t>(count)), offset_(static_cast<std::size_t>(count) + 1) {
    if (count == 0) {
        return;
    }
    std::vector<std::int32_t> positions(ids_.size());
    for (std::int32_t i = 0; i < count; ++i) {
        positions[static_cast<std::size_t>(i)] = i;
    }
    char *text = nullptr;
    std::int64_t *offset = nullptr;
    check(model, TRVidsat(model, kind, count, positions.data(), ids_.data()));
    const char *attribute = kind == TRV_VAR         ? "VarName"
                            : kind == TRV_CONSTR    ? "ConstrName"
                            : kind == TRV_QCONSTR   ? "QName"
                            : kind == TRV_GENCONSTR ? "GenName"
                                                    : "NLName";
    check(model, TRVgetstrs(model, attribute, count, ids_.data(), 0, &text, &offset));
    const std::unique_ptr<char, StoreFree> text_owner(text);
    const std::unique_ptr<std::int64_t, StoreFree> offset_owner(offset);
    check_stop();
    offset_.assign(offset, offset + count + 1);
    text_.assign(text, static_cast<std::size_t>(offset[count]));
    check_stop();
}

void ModelNames::refuse_doubled(std::string_view before, const std::string &kind) {
    for (std::int32_t i = 0; i < count_; ++i) {
        check_stop_at(i);
        if (table_.add((*this)[i]) < 0) {
            throw FileError{TRV_ERROR_UNSUPPORTED, joined(before, "two ", kind, "s are called ", shown((*this)[i]))};
        }
    }
}

} // namespace trv
