// Lines and sections of an MPS file, and which of its two forms it has (see mps_parser.h).
#include "mps_parser.h"

#include <algorithm>

#include "text_scan.h"

namespace trv {

// A section that is known, but not read yet, is refused by its name.
const MpsParser::Section MpsParser::kSections[] = {
    {"NAME", &MpsParser::begin_name, &MpsParser::no_line, ""},
    {"OBJSENSE", &MpsParser::begin_sense, &MpsParser::sense_line, ""},
    {"OBJNAME", &MpsParser::begin_objective, &MpsParser::objective_line, ""},
    {"OBJSECT", &MpsParser::begin_objective, &MpsParser::objective_line, ""},
    {"ROWS", &MpsParser::no_rest, &MpsParser::row_line, ""},
    {"COLUMNS", &MpsParser::begin_columns, &MpsParser::column_line, "ROWS"},
    {"RHS", &MpsParser::begin_set, &MpsParser::rhs_line, "COLUMNS"},
    {"RANGES", &MpsParser::begin_set, &MpsParser::range_line, "COLUMNS"},
    {"BOUNDS", &MpsParser::begin_set, &MpsParser::bound_line, "COLUMNS"},
    {"ENDATA", &MpsParser::finish, nullptr, "COLUMNS"},
    {"QUADOBJ", &MpsParser::begin_quadratic, &MpsParser::quadratic_line, "COLUMNS"},
    {"QMATRIX", &MpsParser::begin_quadratic, &MpsParser::quadratic_line, "COLUMNS"},
    {"QCMATRIX", &MpsParser::begin_quadratic_row, &MpsParser::quadratic_line, "COLUMNS", true},
    {"QSECTION", &MpsParser::unsupported, nullptr, ""},
    {"CSECTION", &MpsParser::unsupported, nullptr, ""},
    {"SOS", &MpsParser::no_rest, &MpsParser::set_line, "COLUMNS"},
    {"SOS1", &MpsParser::unsupported, nullptr, ""},
    {"SOS2", &MpsParser::unsupported, nullptr, ""},
    {"SETS", &MpsParser::unsupported, nullptr, ""},
    {"INDICATORS", &MpsParser::no_rest, &MpsParser::indicator_line, "COLUMNS"},
    {"GENCONS", &MpsParser::unsupported, nullptr, ""},
    {"PWLOBJ", &MpsParser::unsupported, nullptr, ""},
    {"LAZYCONS", &MpsParser::unsupported, nullptr, ""},
    {"USERCUTS", &MpsParser::unsupported, nullptr, ""},
};

const MpsParser::Section *MpsParser::find_section(std::string_view word) {
    const auto found = std::find_if(std::begin(kSections), std::end(kSections),
                                    [&](const Section &section) { return section.name == word; });
    return found == std::end(kSections) ? nullptr : found;
}

bool MpsParser::was_open(std::string_view section) const {
    return std::any_of(opened_.begin(), opened_.end(), [&](const Section *s) { return s->name == section; });
}

void MpsParser::run() {
    std::string_view line;
    while (!done_ && lines_.next(line)) {
        if (line.empty() || line.front() == '*') {
            continue;
        }
        if (!is_blank(line.front())) {
            header(line);
        } else if (std::any_of(line.begin(), line.end(), [](char c) { return !is_blank(c); })) {
            if (section_ == nullptr) {
                throw LineError{joined("data before the first section: ", shown(trimmed(line)))};
            }
            (this->*section_->line)(line);
        }
    }
    if (!done_) {
        throw LineError{"the file ends without ENDATA"};
    }
    lines_.drain();
}

void MpsParser::header(std::string_view line) {
    mps_check_header(line);
    const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
    const std::string_view word = line.substr(0, end);
    const Section *section = find_section(word);
    if (section != nullptr) {
        open(*section, trimmed(line.substr(end)));
    } else if (section_ != nullptr && section_->name == "OBJSENSE" && !sense_given_) {
        sense_line(line); // often written without its blank
    } else {
        throw LineError{joined("unknown section ", shown(word), " (lines of data begin with a blank)")};
    }
}

void MpsParser::open(const Section &section, std::string_view rest) {
    if (was_open(section.name) && !section.repeats) {
        throw LineError{joined("a second section ", section.name)};
    }
    close_quadratic();
    close_set();
    if (!section.after.empty() && !was_open(section.after)) {
        throw LineError{joined(section.name, " without ", section.after, " before it")};
    }
    section_ = &section;
    if (!was_open(section.name)) {
        opened_.push_back(&section);
    }
    (this->*section.begin)(rest);
}

void MpsParser::unsupported(std::string_view) {
    throw LineError{joined("section ", section_->name, " is not supported yet"), TRV_ERROR_UNSUPPORTED};
}

void MpsParser::no_rest(std::string_view rest) {
    if (!rest.empty() && !rest.starts_with('$')) {
        throw LineError{joined(shown(rest), " behind ", section_->name, " (lines of data begin with a blank)")};
    }
}

void MpsParser::no_line(std::string_view line) {
    throw LineError{joined("data in section ", section_->name, ": ", shown(trimmed(line)))};
}

// ---- which form -----------------------------------------------------------------------------------------------------

namespace {

struct Attempt {
    FileModel model;
    bool read = false, ambiguous = false;
    std::int64_t line = 0;
    LineError error;
};

Attempt attempt(const std::string &path, MpsForm form, bool watch_forms) {
    Attempt result;
    MpsParser parser(path, form, watch_forms);
    try {
        parser.run();
        result.model = parser.take();
        result.read = true;
    } catch (const LineError &error) {
        result.error = error;
    } catch (const AmbiguousForm &) {
        result.ambiguous = true;
    }
    result.line = parser.line();
    return result;
}

} // namespace

// Free form first: a file in fixed form whose names have no blanks means the same in it. Names with blanks break it (a
// row of three words, a line of four fields), at their first line, and then the fixed columns are tried. If neither
// form reads the file, the one that came further had the right idea, and its complaint is the one to hear.
FileModel read_mps(const std::string &path) {
    Attempt free = attempt(path, MpsForm::free, true);
    if (free.read) {
        return std::move(free.model);
    }
    Attempt fixed = attempt(path, MpsForm::fixed, false);
    if (fixed.read) {
        return std::move(fixed.model);
    }
    if (free.ambiguous) {
        free = attempt(path, MpsForm::free, false);
        if (free.read) {
            return std::move(free.model);
        }
    }
    const Attempt &best = fixed.line > free.line ? fixed : free;
    throw FileError{best.error.code, placed(path, best.line, best.error.text)};
}

} // namespace trv
