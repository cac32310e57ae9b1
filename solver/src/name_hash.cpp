// See name_hash.h.
#include "name_hash.h"

#include <chrono>
#include <cstring>
#include <random>

namespace trv {
namespace {

struct Seed {
    std::uint64_t start, factor;

    Seed() noexcept {
        try {
            std::random_device device;
            const auto word = [&] { return std::uint64_t{device()} << 32 | device(); };
            start = word();
            factor = word() | 1;
        } catch (...) { // no source of randomness: the clock and where the loader put us still differ between processes
            start = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
            factor = (start * 0x9E3779B97F4A7C15u ^ reinterpret_cast<std::uintptr_t>(this)) | 1;
        }
    }
};

// Both halves of the product: of the lower one alone, a difference in the highest bits is known in advance whatever the
// seed is, and can be taken back by the next word.
std::uint64_t folded(std::uint64_t a, std::uint64_t b) {
    __extension__ using Wide = unsigned __int128;
    const Wide product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

} // namespace

// Eight bytes a step: names are short, and a byte-wise hash would cost more than the rest of the look-up.
std::uint32_t name_hash(std::string_view name) noexcept {
    static const Seed seed;
    std::uint64_t state = seed.start ^ name.size();
    const char *at = name.data();
    std::size_t left = name.size();
    for (; left >= 8; at += 8, left -= 8) {
        std::uint64_t word;
        std::memcpy(&word, at, 8);
        state = folded(state ^ word, seed.factor);
    }
    std::uint64_t word = 0;
    if (left > 0) // an empty view may point nowhere
        std::memcpy(&word, at, left);
    state = folded(state ^ word, seed.factor);
    return static_cast<std::uint32_t>(folded(state, seed.start | 1));
}

} // namespace trv
