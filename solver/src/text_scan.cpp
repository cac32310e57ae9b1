// Numbers and names as text files hold them (see text_scan.h).
#include "text_scan.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "file_error.h"

namespace trv {
namespace {

char lowered(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// from_chars reports numbers out of range without saying on which side. The place of the first significant digit,
// moved by the exponent, tells: 1e400 and 1 followed by 400 zeros are large, 0.(400 zeros)1 is small.
bool is_large(std::string_view text) {
    const std::size_t mantissa_end = std::min(text.find_first_of("eE"), text.size());
    const std::string_view mantissa = text.substr(0, mantissa_end);
    const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
    const std::size_t first = mantissa.find_first_of("123456789");
    if (first == std::string_view::npos) {
        return false;
    }
    const double place = static_cast<double>(point) - static_cast<double>(first);
    double exponent = 0;
    if (mantissa_end < text.size()) {
        const std::string_view digits = text.substr(mantissa_end + 1);
        const bool negative = digits.starts_with('-');
        for (const char c : digits.substr(digits.find_first_of("0123456789"))) {
            exponent = exponent * 10 + (c - '0');
        }
        exponent = negative ? -exponent : exponent;
    }
    return place + exponent > 0;
}

template <typename Number> bool scan_plain(std::string_view text, Number &value) {
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value);
    if (rest != end || error == std::errc::invalid_argument) {
        return false;
    }
    if (error == std::errc::result_out_of_range) {
        const Number size = is_large(text) ? std::numeric_limits<Number>::infinity() : Number{0};
        value = text.starts_with('-') ? -size : size;
    }
    return !std::isnan(value);
}

template <typename Number> bool scan_signed(std::string_view text, Number &value) {
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) {
            return false;
        }
    }
    if (scan_plain(text, value)) {
        return true;
    }
    const std::size_t letter = text.find_first_of("dD");
    if (letter == std::string_view::npos) {
        return false;
    }
    std::string with_e(text);
    with_e[letter] = 'e';
    // from_chars knows "1e+5", so only the letter differs.
    return scan_plain(std::string_view(with_e), value);
}

// Length of the UTF-8 sequence that starts the text, 0 if it is broken (overlong forms and surrogates included).
std::size_t sequence_length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const bool overlong = (first == 0xE0 && byte(1) < 0xA0) || (first == 0xF0 && byte(1) < 0x90);
    const bool beyond = (first == 0xED && byte(1) > 0x9F) || (first == 0xF4 && byte(1) > 0x8F);
    return overlong || beyond ? 0 : length;
}

// With the closing quote, and dots behind it if the text was cut.
std::string escaped(std::string_view text, std::size_t most) {
    constexpr char hex[] = "0123456789abcdef";
    std::string out;
    while (!text.empty() && out.size() < most) {
        const std::size_t length = sequence_length(text);
        const auto byte = static_cast<unsigned char>(text.front());
        if (length == 0 || byte < 0x20 || byte == 0x7F) {
            out.append({'\\', 'x', hex[byte >> 4], hex[byte & 15]});
        } else {
            out.append(text.substr(0, length));
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return out.append(text.empty() ? "'" : "'...");
}

} // namespace

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return lowered(x) == lowered(y); });
}

bool scan_number(std::string_view text, double &value) {
    return scan_signed(text, value);
}

bool scan_extended(std::string_view text, long double &value) {
    double nearest;
    if (!scan_number(text, nearest)) {
        return false;
    }
    value = nearest;
    const std::string_view mantissa = text.substr(0, text.find_first_of("eEdD"));
    const auto first = std::find_if(mantissa.begin(), mantissa.end(), [](char c) { return c >= '1' && c <= '9'; });
    const auto digits = std::count_if(first, mantissa.end(), is_digit);
    return digits <= std::numeric_limits<double>::max_digits10 || scan_signed(text, value);
}

std::string_view number_text(double value, char (&buffer)[kNumberSize]) {
    const auto [end, error] = std::to_chars(buffer, buffer + kNumberSize, value);
    static_cast<void>(error); // 24 bytes are the most that the shortest form takes
    return {buffer, static_cast<std::size_t>(end - buffer)};
}

bool valid_utf8(std::string_view text) {
    unsigned char all = 0;
    for (const char c : text) {
        all |= static_cast<unsigned char>(c);
    }
    if (all < 0x80) {
        return true;
    }
    while (!text.empty()) {
        const std::size_t length = sequence_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

bool has_control(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; });
}

std::string shown(std::string_view text) {
    return joined("'", escaped(text, 60));
}

std::string in_quotes(std::string_view path) {
    return joined("'", escaped(path, std::string::npos));
}

void refuse_control(char c) {
    const char *advice = c == '\0' ? " (UTF-16? UTF-8 is read)" : c == '\r' ? " (lines end in LF or in CR LF)" : "";
    throw LineError{joined("control character ", shown({&c, 1}), " in the line", advice)};
}

std::string placed(std::string_view path, std::int64_t line, std::string_view what) {
    const std::string whole = escaped(path, std::string::npos);
    const std::int64_t shown_line = std::max<std::int64_t>(line, 1); // an empty file ends before its first line
    return joined(whole.substr(0, whole.size() - 1), ", line ", std::to_string(shown_line), ": ", what);
}

} // namespace trv
