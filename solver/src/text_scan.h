// Numbers and names as text files hold them, whatever the format.
//
//     double value;
//     scan_number("-1.5D+3", value)      true, -1500     whole token or nothing; no locale; "inf" is a number, "nan" is
//     not number_text(0.1, buffer)           "0.1"           the shortest text that reads back as the same double
//     valid_utf8("caf\xe9")              false
#ifndef TARVO_TEXT_SCAN_H
#define TARVO_TEXT_SCAN_H

#include <string_view>

namespace trv {

inline bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view trimmed(std::string_view text);

// Letters of ASCII only: keywords are nothing else.
bool equal_ignoring_case(std::string_view a, std::string_view b);

// Fortran's D is taken as an exponent letter. What is too large is infinite, what is too small is zero.
bool scan_number(std::string_view text, double &value);

// The same with all the digits that a long double holds, if the text has more significant digits than a double needs;
// else exactly the double. See mps_sides.h for who needs them.
bool scan_extended(std::string_view text, long double &value);

constexpr int kNumberSize = 40;
std::string_view number_text(double value, char (&buffer)[kNumberSize]);

bool valid_utf8(std::string_view text);
bool has_control(std::string_view text); // bytes below the blank, tabs and line ends among them

} // namespace trv
#endif
