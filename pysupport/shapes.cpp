#include "pysupport/shapes.h"

#include <algorithm>
#include <stdexcept>

namespace pysupport::shapes {

namespace {

bool product_fits(const Shape &shape) {
    std::int64_t product = 1;
    for (std::int64_t extent : shape)
        if (extent != 0 && __builtin_mul_overflow(product, extent, &product))
            return false;
    return true;
}

void check_size(const Shape &result, const Shape &a, const Shape &b) {
    if (result.size() > max_dimensions || !product_fits(result))
        throw std::invalid_argument("broadcast dimensions too large: " + text(a) + " " + text(b));
}

} // namespace

std::string text(const Shape &shape) {
    std::string out = "(";
    for (std::size_t d = 0; d < shape.size(); ++d)
        out += (d ? "," : "") + std::to_string(shape[d]);
    return out + (shape.size() == 1 ? ",)" : ")");
}

void validate(const Shape &shape) {
    if (shape.size() > max_dimensions)
        throw std::invalid_argument("maximum supported dimension for an array is 64, found " +
                                    std::to_string(shape.size()));
    if (std::any_of(shape.begin(), shape.end(), [](std::int64_t extent) { return extent < 0; }))
        throw std::invalid_argument("negative dimensions are not allowed: " + text(shape));
    if (!product_fits(shape))
        throw std::invalid_argument("array is too big: " + text(shape));
}

std::optional<Shape> try_broadcast(const Shape &a, const Shape &b) {
    const Shape &longer = a.size() >= b.size() ? a : b, &shorter = a.size() >= b.size() ? b : a;
    Shape result = longer;
    std::size_t skip = longer.size() - shorter.size();
    for (std::size_t d = 0; d < shorter.size(); ++d) {
        if (result[skip + d] == 1)
            result[skip + d] = shorter[d];
        else if (shorter[d] != 1 && shorter[d] != result[skip + d])
            return std::nullopt;
    }
    return result;
}

Shape broadcast(const Shape &a, const Shape &b) {
    std::optional<Shape> result = try_broadcast(a, b);
    if (!result)
        throw std::invalid_argument("operands could not be broadcast together with shapes " + text(a) + " " + text(b));
    check_size(*result, a, b);
    return *result;
}

std::optional<Shape> try_matmul(const Shape &a, const Shape &b) {
    if (a.empty() || b.empty())
        return std::nullopt;
    std::int64_t inner = b.size() == 1 ? b[0] : b[b.size() - 2];
    if (a.back() != inner)
        return std::nullopt;
    Shape left(a.begin(), a.end() - std::min<std::size_t>(a.size(), 2));
    Shape right(b.begin(), b.end() - std::min<std::size_t>(b.size(), 2));
    std::optional<Shape> result = try_broadcast(left, right);
    if (result && a.size() > 1)
        result->push_back(a[a.size() - 2]);
    if (result && b.size() > 1)
        result->push_back(b.back());
    return result;
}

Shape matmul(const Shape &a, const Shape &b) {
    std::string both = text(a) + " " + text(b);
    if (a.empty() || b.empty())
        throw std::invalid_argument("matrix product of shapes " + both +
                                    ": each operand needs at least one dimension (use *)");
    std::int64_t inner = b.size() == 1 ? b[0] : b[b.size() - 2];
    if (a.back() != inner)
        throw std::invalid_argument("matrix product of shapes " + both + ": the inner dimensions " +
                                    std::to_string(a.back()) + " and " + std::to_string(inner) + " differ");
    std::optional<Shape> result = try_matmul(a, b);
    if (!result)
        throw std::invalid_argument("matrix product of shapes " + both +
                                    ": the leading dimensions cannot be broadcast together");
    check_size(*result, a, b);
    return *result;
}

} // namespace pysupport::shapes
