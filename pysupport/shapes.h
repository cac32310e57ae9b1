// Shape arithmetic by NumPy's rules, without Python objects.
//
//   Shape s = broadcast({2, 3}, {3});        {2, 3}
//   Shape p = matmul({5, 2, 3}, {3});        {5, 2}
//
// A shape has at most 64 extents, none negative, and a product that fits 63 bits (zero extents left out, as NumPy
// counts). Errors are std::invalid_argument, which the border makes a ValueError; the text names both shapes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pysupport::shapes {

using Shape = std::vector<std::int64_t>;

inline constexpr std::size_t max_dimensions = 64;

std::string text(const Shape &shape); // "(2,3)", "(4,)", "()", as NumPy writes them in messages

// Refuses negative extents, more than 64 of them, and a product beyond 63 bits.
void validate(const Shape &shape);

std::optional<Shape> try_broadcast(const Shape &a, const Shape &b);
Shape broadcast(const Shape &a, const Shape &b);

// The shape of a @ b: vectors lose their extent, leading extents are broadcast.
std::optional<Shape> try_matmul(const Shape &a, const Shape &b);
Shape matmul(const Shape &a, const Shape &b);

} // namespace pysupport::shapes
