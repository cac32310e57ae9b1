// Words and keywords of LP files (see lp_lexer.h).
#include "lp_lexer.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "text_scan.h"

namespace trv {
namespace {

enum Class : unsigned char { kName, kDigit, kBlank, kOperator, kBracket, kControl };

constexpr std::array<Class, 256> classes() {
    std::array<Class, 256> table{}; // letters, punctuation and all of UTF-8 beyond ASCII: kName
    for (std::size_t c = 0; c < ' '; ++c) {
        table[c] = kControl;
    }
    table[0x7F] = kControl;
    table['\t'] = table[' '] = kBlank;
    for (std::size_t c = '0'; c <= '9'; ++c) {
        table[c] = kDigit;
    }
    for (const char c : {'+', '-', '*', '/', '^', '<', '>', '=', ':', '\\'}) {
        table[static_cast<unsigned char>(c)] = kOperator;
    }
    table['['] = table[']'] = kBracket;
    return table;
}

constexpr std::array<Class, 256> kClasses = classes();

Class class_of(char c) {
    return kClasses[static_cast<unsigned char>(c)];
}

// No name begins so: a number with a decimal comma would be read as one.
bool bad_begin(char c) {
    return std::string_view(".,;)}").find(c) != std::string_view::npos;
}

struct Keyword {
    std::string_view text;
    LpSection section;
};

// Where one begins another, the longer comes first. A blank stands for any number of blanks.
constexpr Keyword kKeywords[] = {
    {"minimize", LpSection::minimize},
    {"minimise", LpSection::minimize},
    {"minimum", LpSection::minimize},
    {"min", LpSection::minimize},
    {"maximize", LpSection::maximize},
    {"maximise", LpSection::maximize},
    {"maximum", LpSection::maximize},
    {"max", LpSection::maximize},
    {"subject to", LpSection::rows},
    {"such that", LpSection::rows},
    {"s.t.", LpSection::rows},
    {"st.", LpSection::rows},
    {"st", LpSection::rows},
    {"bounds", LpSection::bounds},
    {"bound", LpSection::bounds},
    {"general constraints", LpSection::unsupported},
    {"generals", LpSection::general},
    {"general", LpSection::general},
    {"gens", LpSection::general},
    {"gen", LpSection::general},
    {"integers", LpSection::general},
    {"integer", LpSection::general},
    {"int", LpSection::general},
    {"binaries", LpSection::binary},
    {"binary", LpSection::binary},
    {"bin", LpSection::binary},
    {"semi-continuous", LpSection::semi},
    {"semis", LpSection::semi},
    {"semi-integers", LpSection::unsupported},
    {"semi-integer", LpSection::unsupported},
    {"semi", LpSection::semi},
    {"end", LpSection::end},
    {"sos1", LpSection::unsupported},
    {"sos2", LpSection::unsupported},
    {"sos", LpSection::sets},
    {"lazy constraints", LpSection::unsupported},
    {"user cuts", LpSection::unsupported},
    {"multi-objectives", LpSection::unsupported},
    {"pwlobj", LpSection::unsupported},
};

char lowered(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

const char *skip_blanks(const char *at, const char *end) {
    while (at != end && is_blank(*at)) {
        ++at;
    }
    return at;
}

// Behind the keyword, nullptr where the text does not begin with it.
const char *behind(std::string_view keyword, const char *at, const char *end) {
    for (const char c : keyword) {
        if (c == ' ') {
            const char *next = skip_blanks(at, end);
            if (next == at) {
                return nullptr;
            }
            at = next;
        } else if (at == end || lowered(*at) != c) {
            return nullptr;
        } else {
            ++at;
        }
    }
    const bool whole = at == end || class_of(*at) == kBlank || class_of(*at) == kOperator || class_of(*at) == kControl;
    return whole ? at : nullptr;
}

bool may_begin_keyword(char c) {
    return std::string_view("msbgielup").find(lowered(c)) != std::string_view::npos;
}

std::string_view between(const char *begin, const char *end) {
    return {begin, static_cast<std::size_t>(end - begin)};
}

} // namespace

// ---- lines ----------------------------------------------------------------------------------------------------------

bool LpLexer::next_line() {
    std::string_view line;
    if (!lines_.next(line)) {
        return false;
    }
    at_ = line.data();
    end_ = at_ + line.size();
    at_begin_ = true;
    return true;
}

void LpLexer::scan() {
    for (;;) {
        at_ = skip_blanks(at_, end_);
        if (at_ != end_ && *at_ == '\\') {
            read_title(between(at_ + 1, end_));
            at_ = end_;
        }
        if (at_ != end_) {
            break;
        }
        if (!next_line()) {
            token_ = {LpKind::end, {}, 0, LpSection::none};
            return;
        }
    }
    if (at_begin_ && may_begin_keyword(*at_) && scan_section()) {
        return;
    }
    at_begin_ = false;
    const char c = *at_;
    switch (class_of(c)) {
    case kControl:
        refuse_control(c);
    case kDigit:
        scan_number();
        break;
    case kName:
        if (c == '.' && at_ + 1 != end_ && class_of(at_[1]) == kDigit) {
            scan_number();
        } else {
            scan_name();
        }
        break;
    default:
        scan_operator();
    }
}

void LpLexer::read_title(std::string_view comment) {
    constexpr std::string_view words = "problem name";
    comment = trimmed(comment);
    if (last_section_ != LpSection::none || !title_.empty() || comment.size() < words.size() ||
        !equal_ignoring_case(comment.substr(0, words.size()), words)) {
        return;
    }
    comment = trimmed(comment.substr(words.size()));
    if (comment.starts_with(':') && valid_utf8(comment) && !has_control(comment)) {
        title_ = trimmed(comment.substr(1));
    }
}

// ---- words ----------------------------------------------------------------------------------------------------------

bool LpLexer::scan_section() {
    for (const Keyword &keyword : kKeywords) {
        const char *const after = behind(keyword.text, at_, end_);
        if (after == nullptr) {
            continue;
        }
        const char *const next = skip_blanks(after, end_);
        const char c = next != end_ ? *next : ' ';
        const bool two_words = keyword.text.find(' ') != std::string_view::npos;
        const bool objective = keyword.section == LpSection::minimize || keyword.section == LpSection::maximize;
        const bool awaited = (objective && last_section_ == LpSection::none) ||
                             (keyword.section == LpSection::rows &&
                              (last_section_ == LpSection::minimize || last_section_ == LpSection::maximize));
        if (c == ':' || (class_of(c) == kOperator && c != '\\' && !two_words && !awaited)) {
            return false;
        }
        token_ = {LpKind::section, between(at_, after), 0, keyword.section};
        last_section_ = keyword.section;
        at_ = after;
        at_begin_ = false;
        return true;
    }
    return false;
}

void LpLexer::scan_name() {
    const char *const begin = at_;
    int depth = 0;
    for (; at_ != end_; ++at_) {
        const Class kind = class_of(*at_);
        if (kind == kName || kind == kDigit) {
            continue;
        }
        if (kind != kBracket || (*at_ == ']' && depth == 0)) {
            break;
        }
        depth += *at_ == '[' ? 1 : -1;
    }
    const std::string_view text = between(begin, at_);
    if (bad_begin(text.front())) {
        throw LineError{joined(shown(text), " is neither a number nor a name")};
    }
    const char *const next = skip_blanks(at_, end_);
    const bool label = next != end_ && *next == ':';
    if (label) {
        at_ = next + 1;
    }
    token_ = {label ? LpKind::label : LpKind::name, text, 0, LpSection::none};
}

void LpLexer::scan_number() {
    double value = 0;
    const auto [rest, error] = std::from_chars(at_, end_, value);
    const std::string_view text = between(at_, rest);
    if (error != std::errc()) {
        trv::scan_number(text, value); // out of range: infinite or zero
    }
    at_ = rest;
    want_whole_exponent(text);
    token_ = {LpKind::number, text, value, LpSection::none};
}

// "1e" and "1e+" would be 1 and the variable e; where that is meant, a blank says so.
void LpLexer::want_whole_exponent(std::string_view number) const {
    if (at_ == end_ || lowered(*at_) != 'e') {
        return;
    }
    const Class next = at_ + 1 != end_ ? class_of(at_[1]) : kBlank;
    if (next != kName && next != kDigit && next != kBracket) {
        throw LineError{joined(shown({number.data(), number.size() + 1}), " is not a number")};
    }
}

void LpLexer::scan_operator() {
    const char *const begin = at_;
    const char c = *at_++;
    const char next = at_ != end_ ? *at_ : '\0';
    LpKind kind;
    switch (c) {
    case '+':
        kind = LpKind::plus;
        break;
    case '-':
        kind = next == '>' ? LpKind::arrow : LpKind::minus;
        break;
    case '*':
        kind = LpKind::times;
        break;
    case '/':
        kind = LpKind::divide;
        break;
    case '^':
        kind = LpKind::caret;
        break;
    case '[':
        kind = LpKind::open;
        break;
    case ']':
        kind = LpKind::close;
        break;
    case '<':
        kind = LpKind::less;
        break;
    case '>':
        kind = LpKind::greater;
        break;
    case '=':
        kind = next == '<' ? LpKind::less : next == '>' ? LpKind::greater : LpKind::equal;
        break;
    default: // of all operators ':' alone is left
        kind = LpKind::colon;
    }
    const bool two = kind == LpKind::arrow || (c == '=' && (next == '<' || next == '>' || next == '=')) ||
                     ((c == '<' || c == '>') && next == '=');
    at_ += two ? 1 : 0;
    token_ = {kind, between(begin, at_), 0, LpSection::none};
}

// ---- names ----------------------------------------------------------------------------------------------------------

bool lp_is_infinity(std::string_view word) {
    return equal_ignoring_case(word, "inf") || equal_ignoring_case(word, "infinity");
}

namespace {

bool is_reserved(std::string_view name) {
    const auto same = [&](std::string_view word) { return equal_ignoring_case(name, word); };
    return lp_is_infinity(name) || same("nan") || same("free") ||
           std::any_of(std::begin(kKeywords), std::end(kKeywords),
                       [&](const Keyword &keyword) { return same(keyword.text); });
}

bool balanced(std::string_view name) {
    int depth = 0;
    for (const char c : name) {
        depth += c == '[' ? 1 : c == ']' ? -1 : 0;
        if (depth < 0) {
            return false;
        }
    }
    return depth == 0;
}

} // namespace

std::string_view lp_name_flaw(std::string_view name) {
    if (name.empty()) {
        return "is empty";
    }
    const auto has = [&](Class kind) {
        return std::any_of(name.begin(), name.end(), [&](char c) { return class_of(c) == kind; });
    };
    if (has(kControl) || name.find('\t') != std::string_view::npos) {
        return "has control characters";
    }
    if (has(kBlank)) {
        return "has blanks";
    }
    if (has(kOperator)) {
        return "has one of + - * / ^ < > = : \\";
    }
    if (class_of(name.front()) == kDigit || name.front() == '[' || bad_begin(name.front())) {
        return "begins with a digit or one of . , ; ) } [";
    }
    if (!balanced(name)) {
        return "has brackets that do not match";
    }
    if (lowered(name.front()) == 'e' && name.size() > 1 && class_of(name[1]) == kDigit) {
        return "reads as the exponent of a number";
    }
    return is_reserved(name) ? "is a keyword" : "";
}

} // namespace trv
