// Words of an LP file. A token points into the line in hand, so a name must be used before the next peek().
//
//     LpLexer lexer("m.lp");
//     while (lexer.peek().kind != LpKind::end) { LpToken token = lexer.take(); ... }
//
//   "3 x[1,2]^2"    number 3, name x[1,2], caret, number 2
//   "c1: -5<=y"     label c1, minus, number 5, less, name y
//   "Subject To"    section rows
//
// A name goes on to the next blank or operator; a "]" belongs to it where it closes a "[" of the same name. A keyword
// counts as one at the begin of a line only, and not before a ":" or an operator, where it is a name.
#ifndef TARVO_LP_LEXER_H
#define TARVO_LP_LEXER_H

#include "file_stream.h"

namespace trv {

enum class LpKind {
    end,
    section,
    label,
    name,
    number,
    plus,
    minus,
    times,
    divide,
    caret,
    open,
    close,
    less,
    greater,
    equal,
    arrow,
    colon // the second one of "S1::"
};

enum class LpSection { none, minimize, maximize, rows, bounds, general, binary, semi, sets, end, unsupported };

struct LpToken {
    LpKind kind;
    std::string_view text;
    double value;
    LpSection section;
};

class LpLexer {
  public:
    explicit LpLexer(const std::string &path) : lines_(path) {}
    const LpToken &peek() {
        if (!ready_) {
            scan();
            ready_ = true;
        }
        return token_;
    }
    LpToken take() {
        const LpToken token = peek();
        ready_ = false;
        taken_line_ = lines_.number();
        return token;
    }
    std::int64_t line() const { return lines_.number(); }
    std::int64_t taken_line() const { return taken_line_; } // of the token taken last
    const std::string &title() const { return title_; }     // from a comment in front, "Problem name: diet"
    void drain() { lines_.drain(); }

  private:
    void scan();
    bool next_line();
    bool scan_section();
    void scan_name();
    void scan_number();
    void want_whole_exponent(std::string_view number) const;
    void scan_operator();
    void read_title(std::string_view comment);

    LineReader lines_;
    const char *at_ = nullptr, *end_ = nullptr;
    bool at_begin_ = false, ready_ = false;
    LpSection last_section_ = LpSection::none;
    LpToken token_{};
    std::int64_t taken_line_ = 0;
    std::string title_;
};

// Why no LP file can have this name, an empty text if it can.
std::string_view lp_name_flaw(std::string_view name);

// "inf" and "infinity", in any case.
bool lp_is_infinity(std::string_view word);

} // namespace trv
#endif
