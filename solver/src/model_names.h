// The names of all elements of one kind, by position, as a file writer needs them.
//
//     ModelNames names(model, TRV_VAR, nvars);
//     names[3]                                  "x[0,3]"
//     names.refuse_doubled("MPS: ", "variable") throws FileError naming the first that stands twice
#ifndef TARVO_MODEL_NAMES_H
#define TARVO_MODEL_NAMES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "name_table.h"

namespace trv {

class ModelNames {
  public:
    ModelNames(TRVmodel *model, int kind, std::int32_t count);
    std::int32_t size() const { return count_; }
    std::string_view operator[](std::int32_t i) const {
        return {
            text_.data() + offset_[static_cast<std::size_t>(i)],
            static_cast<std::size_t>(offset_[static_cast<std::size_t>(i) + 1] - offset_[static_cast<std::size_t>(i)])};
    }
    std::int32_t id(std::int32_t i) const { return ids_[static_cast<std::size_t>(i)]; }
    // Only after refuse_doubled.
    std::int32_t find(std::string_view name) const { return table_.find(name); }
    void refuse_doubled(std::string_view before, const std::string &kind);

  private:
    std::int32_t count_;
    std::vector<std::int32_t> ids_;
    std::string text_;
    std::vector<std::int64_t> offset_;
    NameTable table_;
};

} // namespace trv
#endif
