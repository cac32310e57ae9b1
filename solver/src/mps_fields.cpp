// Lines of MPS sections taken apart, in free and in fixed form (see mps_fields.h).
#include "mps_fields.h"

#include <algorithm>
#include <array>
#include <string>

#include "file_error.h"
#include "text_scan.h"

namespace trv {
namespace {

[[noreturn]] void bad_count(int count, const char *expected, std::string_view line) {
    throw LineError{joined(std::to_string(count), count == 1 ? " field" : " fields", ", expected ", expected, ": ",
                           shown(trimmed(line)))};
}

void check_characters(std::string_view line, bool tabs) {
    const auto bad = std::find_if(line.begin(), line.end(),
                                  [&](char c) { return static_cast<unsigned char>(c) < ' ' && !(tabs && c == '\t'); });
    if (bad != line.end()) {
        refuse_control(*bad);
    }
}

// ---- free form ------------------------------------------------------------------------------------------------------

// One more than any line may have, so that too many are noticed.
constexpr int kMostFields = 7;

struct Fields {
    std::array<std::string_view, kMostFields> at;
    int count = 0;
    std::string_view operator[](int i) const { return at[static_cast<std::size_t>(i)]; }
};

Fields split(std::string_view line) {
    Fields fields;
    const char *p = line.data(), *const end = p + line.size();
    while (fields.count < kMostFields) {
        while (p != end && is_blank(*p)) {
            ++p;
        }
        if (p == end) {
            break;
        }
        const char *const start = p;
        while (p != end && static_cast<unsigned char>(*p) > ' ') {
            ++p;
        }
        if (p != end && !is_blank(*p)) {
            refuse_control(*p);
        }
        fields.at[static_cast<std::size_t>(fields.count++)] = {start, static_cast<std::size_t>(p - start)};
    }
    return fields;
}

// A "$" that starts a field behind a complete record begins a comment. (The format's books also let it stand earlier,
// where nothing but a name that starts with "$" makes sense.)
void drop_comment(Fields &fields, int complete) {
    for (int i = complete; i < fields.count; ++i) {
        if (fields[i].starts_with('$')) {
            fields.count = i;
        }
    }
}

constexpr const char *kColumnFields = "3 or 5 (column, row, number, row, number)";
constexpr const char *kPairsFields = "2 to 5 (set, row, number, row, number)";
constexpr const char *kBoundFields = "2 to 4 (type, set, column, number)";

MpsPairsLine with_pairs(const Fields &fields, int first) {
    MpsPairsLine record;
    for (int i = first; i + 1 < fields.count; i += 2) {
        record.pair[record.npairs++] = {fields[i], fields[i + 1]};
    }
    return record;
}

bool is_marker(std::string_view before_last, std::string_view last) {
    return before_last == "'MARKER'" && last.starts_with('\'');
}

MpsPairsLine free_column(std::string_view line) {
    Fields fields = split(line);
    if (fields.count == 3 && is_marker(fields[1], fields[2])) {
        MpsPairsLine record;
        record.marker = fields[2];
        return record;
    }
    drop_comment(fields, 3);
    if (fields.count != 3 && fields.count != 5) {
        bad_count(fields.count, kColumnFields, line);
    }
    MpsPairsLine record = with_pairs(fields, 1);
    record.head = fields[0];
    return record;
}

MpsPairsLine free_pairs(std::string_view line) {
    Fields fields = split(line);
    drop_comment(fields, 3);
    if (fields.count < 2 || fields.count > 5) {
        bad_count(fields.count, kPairsFields, line);
    }
    const bool has_set = fields.count % 2 == 1;
    MpsPairsLine record = with_pairs(fields, has_set ? 1 : 0);
    record.head = has_set ? fields[0] : std::string_view();
    return record;
}

bool may_lack_number(std::string_view type) {
    return type == "FR" || type == "MI" || type == "PL" || type == "BV";
}

MpsBoundLine free_bound(std::string_view line) {
    Fields fields = split(line);
    drop_comment(fields, 4);
    if (fields.count < 2 || fields.count > 4) {
        bad_count(fields.count, kBoundFields, line);
    }
    const std::string_view type = fields[0];
    if (fields.count == 4) {
        return {type, fields[1], fields[2], fields[3]};
    }
    if (fields.count == 2) {
        return {type, {}, fields[1], {}};
    }
    if (may_lack_number(type)) {
        return {type, fields[1], fields[2], {}, true};
    }
    return {type, {}, fields[1], fields[2]};
}

// ---- fixed form -----------------------------------------------------------------------------------------------------

struct Span {
    std::size_t begin, end; // from 0, the end not included
};
constexpr Span kField[] = {{1, 3}, {4, 12}, {14, 22}, {24, 36}, {39, 47}, {49, 61}};
constexpr std::size_t kCardEnd = 72; // what stands behind is the number of the punched card

std::string_view piece(std::string_view line, Span span) {
    if (span.begin >= line.size()) {
        return {};
    }
    return trimmed(line.substr(span.begin, span.end - span.begin));
}

void check_gap(std::string_view line, std::size_t begin, std::size_t end) {
    const std::string_view gap = piece(line, {begin, end});
    if (!gap.empty()) {
        const auto column = static_cast<std::size_t>(gap.data() - line.data()) + 1;
        throw LineError{joined(shown(gap), " at column ", std::to_string(column),
                               " stands outside of the fixed fields: ", shown(trimmed(line)))};
    }
}

// The fourth field, a number, may run on where nothing follows it: twelve columns do not hold every double.
std::string_view long_number(std::string_view line) {
    if (line.size() <= kField[3].end || is_blank(line[kField[3].end])) {
        return {};
    }
    const std::string_view rest = trimmed(line.substr(kField[3].begin));
    return rest.find(' ') == std::string_view::npos ? rest : std::string_view();
}

Fields fixed_split(std::string_view line) {
    check_characters(line, false);
    Fields fields;
    const std::string_view number = long_number(line);
    const int whole = number.empty() ? 6 : 3;
    std::size_t gap = 0;
    for (int i = 0; i < whole; ++i) {
        check_gap(line, gap, kField[i].begin);
        fields.at[static_cast<std::size_t>(i)] = piece(line, kField[i]);
        gap = kField[i].end;
        if (i == 4 && fields[4].starts_with('$')) { // a comment, to the end
            fields.at[4] = {};
            gap = line.size();
            break;
        }
    }
    if (number.empty()) {
        check_gap(line, gap, kCardEnd);
    } else {
        check_gap(line, gap, kField[3].begin);
        fields.at[3] = number;
    }
    fields.count = 6;
    return fields;
}

void fill_pairs(const Fields &fields, MpsPairsLine &record, const char *expected, std::string_view line) {
    for (int i = 2; i < 6; i += 2) {
        if (fields[i].empty() != fields[i + 1].empty() || (i == 2 && fields[i].empty())) {
            const auto filled = std::count_if(fields.at.begin(), fields.at.end(), [](auto f) { return !f.empty(); });
            bad_count(static_cast<int>(filled), expected, line);
        }
        if (!fields[i].empty()) {
            record.pair[record.npairs++] = {fields[i], fields[i + 1]};
        }
    }
}

void want_empty(std::string_view field, std::string_view line) {
    if (!field.empty()) {
        throw LineError{
            joined(shown(field), " stands in a field that this section leaves empty: ", shown(trimmed(line)))};
    }
}

MpsPairsLine fixed_column(std::string_view line) {
    const Fields words = split(line);
    if (words.count >= 3 && words.count < kMostFields && is_marker(words[words.count - 2], words[words.count - 1])) {
        MpsPairsLine record;
        record.marker = words[words.count - 1];
        return record;
    }
    const Fields fields = fixed_split(line);
    want_empty(fields[0], line);
    MpsPairsLine record;
    record.head = fields[1];
    if (record.head.empty()) {
        throw LineError{joined("no column's name in columns 5 to 12: ", shown(trimmed(line)))};
    }
    fill_pairs(fields, record, kColumnFields, line);
    return record;
}

MpsPairsLine fixed_pairs(std::string_view line) {
    const Fields fields = fixed_split(line);
    want_empty(fields[0], line);
    MpsPairsLine record;
    record.head = fields[1];
    fill_pairs(fields, record, kPairsFields, line);
    return record;
}

MpsBoundLine fixed_bound(std::string_view line) {
    const Fields fields = fixed_split(line);
    want_empty(fields[4], line);
    want_empty(fields[5], line);
    return {fields[0], fields[1], fields[2], fields[3]};
}

MpsRowLine fixed_row(std::string_view line) {
    const Fields fields = fixed_split(line);
    for (int i = 2; i < 6; ++i) {
        want_empty(fields[i], line);
    }
    if (fields[0].empty() || fields[1].empty()) {
        bad_count(fields[0].empty() && fields[1].empty() ? 0 : 1, "2 (type, row)", line);
    }
    return {fields[0], fields[1]};
}

constexpr const char *kSetFields = "2 (type, set or column, weight)";

MpsSetLine fixed_set(std::string_view line) {
    const Fields fields = fixed_split(line);
    for (const int i : {2, 4, 5}) {
        want_empty(fields[i], line);
    }
    if (!fields[0].empty()) {
        want_empty(fields[3], line);
    }
    if (fields[1].empty() || (fields[0].empty() && fields[3].empty())) {
        bad_count(1, kSetFields, line);
    }
    return {fields[0], fields[1], fields[3]};
}

} // namespace

MpsSetLine mps_set_line(MpsForm form, std::string_view line) {
    if (form == MpsForm::fixed) {
        return fixed_set(line);
    }
    Fields fields = split(line);
    const bool begins = fields[0] == "S1" || fields[0] == "S2";
    if (!begins) { // a set's name that holds " $" may be the one sign of the fixed form, as a row's may
        drop_comment(fields, 2);
    }
    if (fields.count != 2) {
        bad_count(fields.count, kSetFields, line);
    }
    if (begins) {
        return {fields[0], fields[1], {}};
    }
    return {{}, fields[0], fields[1]};
}

MpsRowLine mps_row_line(MpsForm form, std::string_view line) {
    if (form == MpsForm::fixed) {
        return fixed_row(line);
    }
    const Fields fields = split(line);
    if (fields.count != 2) {
        bad_count(fields.count, "2 (type, row)", line);
    }
    return {fields[0], fields[1]};
}

MpsPairsLine mps_column_line(MpsForm form, std::string_view line) {
    return form == MpsForm::fixed ? fixed_column(line) : free_column(line);
}

MpsPairsLine mps_pairs_line(MpsForm form, std::string_view line) {
    return form == MpsForm::fixed ? fixed_pairs(line) : free_pairs(line);
}

MpsBoundLine mps_bound_line(MpsForm form, std::string_view line) {
    return form == MpsForm::fixed ? fixed_bound(line) : free_bound(line);
}

std::string_view mps_word_line(std::string_view line) {
    const Fields fields = split(line);
    if (fields.count != 1) {
        bad_count(fields.count, "1", line);
    }
    return fields[0];
}

bool mps_ambiguous_column(std::string_view line) {
    // Two words or more in columns 5 to 12, and nothing between the fields: rare, so these lines decide for almost all
    // (an exception a line would take most of the time of reading).
    const std::string_view name = piece(line, kField[1]);
    const auto blank = [&](std::size_t begin, std::size_t end) { return piece(line, {begin, end}).empty(); };
    if (name.find(' ') == std::string_view::npos || !blank(0, 4) || !blank(12, 14) || !blank(22, 24)) {
        return false;
    }
    try {
        const MpsPairsLine record = fixed_column(line);
        double number;
        return record.npairs > 0 && scan_number(record.pair[0].number, number);
    } catch (const LineError &) {
        return false;
    }
}

void mps_check_header(std::string_view line) {
    check_characters(line, true);
}

} // namespace trv
