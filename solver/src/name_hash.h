// The hash of names, which differs from process to process.
//
// Names come from files of strangers. With a hash that everybody can compute, names can be chosen that all fall on one
// place, and each look-up becomes a walk over all of them: a file of 16,384 such names took 1.5 s to read instead of
// 0.01, growing with the square.
#ifndef TARVO_NAME_HASH_H
#define TARVO_NAME_HASH_H

#include <cstdint>
#include <string_view>

namespace trv {

std::uint32_t name_hash(std::string_view name) noexcept;

} // namespace trv

#endif
