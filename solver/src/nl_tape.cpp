// Tapes in a .nl file (see nl_tape.h).
#include "nl_tape.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <numbers>

#include "file_error.h"

namespace trv {
namespace {

// SCIP 10 read 10000 levels and crashed at 30000, with a stack of 8 MB. Its time grows with the cube of the levels, and
// neither its time limit nor an interrupt ends it: for 800 levels seconds (7 for sines in each other, 22 for quotients,
// on a busy machine), for 5000 the better part of an hour.
constexpr std::int32_t kDeepest = 800;
// A tangent writes its operand twice, nested ones twice as often each.
constexpr std::int32_t kMostTangents = 8;
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

// The file's codes.
enum Code : std::int32_t {
    kPlus = 0,
    kMinus = 1,
    kTimes = 2,
    kOver = 3,
    kPower = 5,
    kAbs = 15,
    kNegative = 16,
    kSqrt = 39,
    kSin = 41,
    kLog10 = 42,
    kLog = 43,
    kExp = 44,
    kCos = 46
};

Code code_of(int operation) {
    switch (operation) {
    case TRV_NL_MULTIPLY:
        return kTimes;
    case TRV_NL_DIVIDE:
        return kOver;
    case TRV_NL_POW:
        return kPower;
    case TRV_NL_UMINUS:
        return kNegative;
    case TRV_NL_SQRT:
        return kSqrt;
    case TRV_NL_EXP:
        return kExp;
    case TRV_NL_LOG:
        return kLog;
    case TRV_NL_LOG10:
        return kLog10;
    case TRV_NL_SIN:
        return kSin;
    case TRV_NL_COS:
        return kCos;
    default:
        return kAbs;
    }
}

// Levels that an operation has in the file.
std::int32_t levels(int operation) {
    switch (operation) {
    case TRV_NL_TANH:
        return 5;
    case TRV_NL_LOGISTIC:
        return 4;
    case TRV_NL_MINUS: // as a summand: a sum and a sign
    case TRV_NL_LOG2:
    case TRV_NL_TAN:
        return 2;
    default:
        return 1;
    }
}

int operation_at(const store::Tape &tape, std::int32_t entry) {
    const std::int32_t code = tape.code[entry];
    return code >= 0 ? -1 : store::operationof(code);
}

std::string digits(double value) {
    std::array<char, 32> text;
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
    return {text.data(), end};
}

bool is_sum(int operation) {
    return operation == TRV_NL_SUM || operation == TRV_NL_MINUS;
}

} // namespace

// ---- what is known beforehand

void NlTape::survey(const store::Tape &tape) {
    parts_.resize(static_cast<std::size_t>(tape.n));
    broken_base_ = 1;
    const double *constant = tape.constant;
    for (std::int32_t k = 0; k < static_cast<std::int32_t>(tape.n); ++k) {
        const int operation = operation_at(tape, k);
        if (operation > TRV_NL_CONSTANT) {
            survey_operation(tape, k);
        } else {
            parts_[static_cast<std::size_t>(k)] = {k, 1, 1, 0, operation < 0 ? kUnknown : *constant++};
        }
    }
}

void NlTape::survey_operation(const store::Tape &tape, std::int32_t entry) {
    const int operation = operation_at(tape, entry);
    Part part{entry, 0, 0, 0, kUnknown};
    const std::int32_t operands = store::operandsof(tape.code[entry]);
    for (std::int32_t i = operands, at = entry - 1; i > 0; --i) {
        const Part &operand = parts_[static_cast<std::size_t>(at)];
        const bool joins = falls_apart(tape, at) && (operation == TRV_NL_SUM || (operation == TRV_NL_MINUS && i == 1));
        part.depth = std::max(part.depth, operand.depth + (joins ? 0 : levels(operation)));
        part.summands += joins ? operand.summands : 1;
        part.tangents = std::max(part.tangents, operand.tangents);
        part.first = operand.first;
        at = operand.first - 1;
    }
    part.tangents += operation == TRV_NL_TAN;
    fold(operation, entry, part);
    parts_[static_cast<std::size_t>(entry)] = part;
}

// What the parts that end before the entry make of it where they are constant.
void NlTape::fold(int operation, std::int32_t entry, Part &part) {
    const auto known = [](const Part &operand) { return !std::isnan(operand.value); };
    const Part &last = parts_[static_cast<std::size_t>(entry - 1)];
    double value = last.value;
    if (operation == TRV_NL_SUM) {
        for (std::int32_t at = last.first - 1; at >= part.first; at = parts_[static_cast<std::size_t>(at)].first - 1) {
            value += parts_[static_cast<std::size_t>(at)].value;
        }
    } else if (last.first > part.first) {
        const Part &left = parts_[static_cast<std::size_t>(last.first - 1)];
        value = known(left) && known(last) ? store::operate(operation, left.value, last.value) : kUnknown;
        if (operation == TRV_NL_POW && left.value <= 0 && !known(last)) {
            broken_base_ = left.value;
        }
    } else {
        value = known(last) ? store::operate(operation, last.value, 0) : kUnknown;
    }
    if (std::isfinite(value)) {
        part = {part.first, 1, 1, 0, value};
    }
}

bool NlTape::falls_apart(const store::Tape &tape, std::int32_t entry) const {
    return is_sum(operation_at(tape, entry)) && std::isnan(parts_[static_cast<std::size_t>(entry)].value);
}

// Of a long sum each operand for itself: the objective of a large model is one tape, and 32 bytes for each of its
// entries would be more than the model takes. An empty list: in one piece.
std::vector<store::Tape> NlTape::pieces(const store::Tape &tape) {
    constexpr std::int64_t kLong = 1 << 16;
    if (tape.n < kLong || operation_at(tape, static_cast<std::int32_t>(tape.n - 1)) != TRV_NL_SUM) {
        return {};
    }
    std::vector<store::Tape> open;
    const double *constant = tape.constant;
    for (std::int64_t k = 0; k < tape.n - 1; ++k) {
        const int operation = operation_at(tape, static_cast<std::int32_t>(k));
        if (operation <= TRV_NL_CONSTANT) {
            open.push_back({1, tape.code + k, constant});
            constant += operation == TRV_NL_CONSTANT;
        } else {
            open.resize(open.size() - static_cast<std::size_t>(store::operandsof(tape.code[k])) + 1);
            open.back().n = tape.code + k + 1 - open.back().code;
        }
    }
    return open;
}

// What a piece brings to the sum of all. It is surveyed afterwards.
NlTape::Part NlTape::part_of_sum(const store::Tape &piece) {
    survey(piece);
    Part part = parts_.back();
    if (!falls_apart(piece, static_cast<std::int32_t>(piece.n - 1))) {
        part.depth += levels(TRV_NL_SUM);
        part.summands = 1;
    }
    return part;
}

NlTape::Part NlTape::whole(const store::Tape &tape, const std::vector<store::Tape> &parts) {
    if (parts.empty()) {
        survey(tape);
        return parts_.back();
    }
    Part sum{0, 0, 0, 0, 0};
    double broken_base = 1;
    for (const store::Tape &piece : parts) {
        const Part part = part_of_sum(piece);
        sum.depth = std::max(sum.depth, part.depth);
        sum.summands += part.summands;
        sum.tangents = std::max(sum.tangents, part.tangents);
        sum.value += part.value;
        broken_base = std::min(broken_base, broken_base_);
    }
    broken_base_ = broken_base;
    return sum;
}

std::string NlTape::refusal(const store::Tape &tape) {
    if (tape.n == 0) {
        return {};
    }
    if (tape.n > std::numeric_limits<std::int32_t>::max()) {
        return "has too many operations for a .nl file";
    }
    const Part whole = this->whole(tape, pieces(tape));
    if (whole.depth > kDeepest) {
        return joined("nests ", std::to_string(whole.depth), " levels deep; the reader of a .nl file takes ",
                      std::to_string(kDeepest), ": give parts of it variables of their own");
    }
    if (whole.tangents > kMostTangents) {
        return joined("has ", std::to_string(whole.tangents), " tangents in each other; a .nl file takes ",
                      std::to_string(kMostTangents));
    }
    if (broken_base_ <= 0) {
        return joined("raises the number ", digits(broken_base_),
                      " to a power with variables; the reader of a .nl file takes positive numbers there");
    }
    return {};
}

// ---- writing

void NlTape::put(NlStream &out, const store::Tape &tape) {
    if (tape.n == 0) {
        out.number(0);
        return;
    }
    const std::vector<store::Tape> parts = pieces(tape);
    const Part sum = whole(tape, parts);
    if (!std::isfinite(sum.value) && !parts.empty()) {
        out.sum(sum.summands);
        for (const store::Tape &piece : parts) {
            survey(piece);
            put_items(out, piece, summand(piece, static_cast<std::int32_t>(piece.n - 1)));
        }
    } else if (!parts.empty()) {
        out.number(sum.value);
    } else {
        put_items(out, tape, {Item::kPart, static_cast<std::int32_t>(tape.n - 1), 0});
    }
}

void NlTape::put_items(NlStream &out, const store::Tape &tape, const Item &first) {
    items_.assign(1, first);
    while (!items_.empty()) {
        const Item item = items_.back();
        items_.pop_back();
        switch (item.kind) {
        case Item::kPart:
            put_part(out, tape, item.value);
            break;
        case Item::kSummands:
            put_sum(out, tape, item.value, true);
            break;
        case Item::kOperation:
            out.operation(item.value);
            break;
        case Item::kNumber:
            out.number(item.number);
            break;
        }
    }
}

void NlTape::put_part(NlStream &out, const store::Tape &tape, std::int32_t entry) {
    const int operation = operation_at(tape, entry);
    if (operation < 0) {
        out.variable(place_[static_cast<std::size_t>(tape.code[entry])]);
    } else if (const double value = parts_[static_cast<std::size_t>(entry)].value; !std::isnan(value)) {
        out.number(value);
    } else if (is_sum(operation)) {
        put_sum(out, tape, entry, false);
    } else {
        put_operation(out, entry, operation);
    }
}

void NlTape::follow(std::initializer_list<Item> items) {
    items_.insert(items_.end(), std::make_reverse_iterator(items.end()), std::make_reverse_iterator(items.begin()));
}

NlTape::Item NlTape::summand(const store::Tape &tape, std::int32_t entry) const {
    return {falls_apart(tape, entry) ? Item::kSummands : Item::kPart, entry, 0};
}

void NlTape::put_sum(NlStream &out, const store::Tape &tape, std::int32_t entry, bool inside) {
    const auto before = [this](std::int32_t at) { return parts_[static_cast<std::size_t>(at)].first - 1; };
    if (operation_at(tape, entry) == TRV_NL_MINUS) {
        const std::int32_t right = entry - 1, left = before(right);
        if (!inside && !falls_apart(tape, left)) {
            out.operation(kMinus);
            follow({{Item::kPart, left, 0}, {Item::kPart, right, 0}});
            return;
        }
        follow({summand(tape, left), {Item::kOperation, kNegative, 0}, {Item::kPart, right, 0}});
    } else {
        for (std::int32_t i = store::arityof(tape.code[entry]), at = entry - 1; i > 0; --i, at = before(at)) {
            items_.push_back(summand(tape, at));
        }
    }
    if (!inside) {
        out.sum(parts_[static_cast<std::size_t>(entry)].summands);
    }
}

void NlTape::put_operation(NlStream &out, std::int32_t entry, int operation) {
    const Item one{Item::kNumber, 0, 1}, two{Item::kNumber, 0, 2}, last{Item::kPart, entry - 1, 0};
    const auto code = [](std::int32_t value) { return Item{Item::kOperation, value, 0}; };
    switch (operation) {
    case TRV_NL_MULTIPLY:
    case TRV_NL_DIVIDE:
    case TRV_NL_POW: {
        out.operation(code_of(operation));
        const std::int32_t left = parts_[static_cast<std::size_t>(entry - 1)].first - 1;
        return follow({{Item::kPart, left, 0}, last});
    }
    case TRV_NL_SQUARE:
        return follow({code(kPower), last, two});
    case TRV_NL_LOG2:
        return follow({code(kTimes), {Item::kNumber, 0, std::numbers::log2e}, code(kLog), last});
    case TRV_NL_TAN:
        return follow({code(kOver), code(kSin), last, code(kCos), last});
    case TRV_NL_TANH: // 1 - 2 / (1 + exp(2 u)): the operand stands in it once
        return follow({code(kMinus), one, code(kOver), two, code(kPlus), one, code(kExp), code(kTimes), two, last});
    case TRV_NL_LOGISTIC:
        return follow({code(kOver), one, code(kPlus), one, code(kExp), code(kNegative), last});
    default:
        out.operation(code_of(operation));
        return follow({last});
    }
}

} // namespace trv
