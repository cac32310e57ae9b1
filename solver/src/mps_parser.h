// One reading of an MPS file in one of its two forms: lines in, FileModel out.
//
//     MpsParser parser(path, MpsForm::free);
//     parser.run();                     throws FileError, LineError (at parser.line()), AmbiguousForm
//     FileModel model = parser.take();
//
// mps_parser.cpp drives lines and sections (the table of sections is there), mps_sections.cpp has what each linear
// section does, mps_quadratic.cpp what the quadratic ones do, mps_general.cpp those of sets and indicators.
#ifndef TARVO_MPS_PARSER_H
#define TARVO_MPS_PARSER_H

#include "file_stream.h"
#include "mps_fields.h"
#include "mps_model.h"
#include "pair_table.h"

namespace trv {

// The line in hand reads differently in the other form (only with watch_forms).
struct AmbiguousForm {};

class MpsParser {
  public:
    MpsParser(const std::string &path, MpsForm form, bool watch_forms = false)
        : lines_(path), form_(form), watch_forms_(watch_forms) {}
    void run();
    std::int64_t line() const { return lines_.number(); }
    FileModel take() { return std::move(model_); }

  private:
    struct Section {
        std::string_view name;
        void (MpsParser::*begin)(std::string_view rest);
        void (MpsParser::*line)(std::string_view line);
        std::string_view after; // the section that must have come before
        bool repeats = false;
    };
    static const Section kSections[];
    static const Section *find_section(std::string_view word);

    void header(std::string_view line);
    void open(const Section &section, std::string_view rest);
    bool was_open(std::string_view section) const;

    // What stands behind the section's name.
    void no_rest(std::string_view rest);
    void begin_name(std::string_view rest);
    void begin_sense(std::string_view rest);
    void begin_objective(std::string_view rest);
    void begin_columns(std::string_view rest);
    void begin_set(std::string_view rest);
    void begin_quadratic(std::string_view rest);
    void begin_quadratic_row(std::string_view rest);
    void unsupported(std::string_view rest);
    void finish(std::string_view rest);

    // The lines of a section.
    void no_line(std::string_view line);
    void sense_line(std::string_view line);
    void objective_line(std::string_view line);
    void row_line(std::string_view line);
    void column_line(std::string_view line);
    void rhs_line(std::string_view line);
    void range_line(std::string_view line);
    void bound_line(std::string_view line);
    void quadratic_line(std::string_view line);
    void set_line(std::string_view line);
    void indicator_line(std::string_view line);

    void choose_objective();
    void marker(std::string_view word);
    void enter_column(std::string_view name);
    void add_entry(MpsPair pair);
    bool in_first_set(std::string_view set);
    std::int32_t known_row(std::string_view name) const;
    std::int32_t known_column(MpsBoundLine &record) const;
    struct BoundType;
    static const BoundType kBoundTypes[];
    void apply_bound(const BoundType &type, std::int32_t column, double value);
    void set_side(std::vector<double> &side, unsigned char bit, std::int32_t column, double value);
    void set_type(std::int32_t column, char vtype);
    enum class QuadForm { triangle, half_square, square }; // QUADOBJ, QMATRIX, QCMATRIX
    void open_quadratic(QuadTerms &terms, QuadForm form);
    std::int32_t entered_column(std::string_view name) const;
    void add_quadratic(std::int32_t one, std::int32_t other, double value);
    std::string quadratic_pair(std::int32_t one, std::int32_t other) const;
    void close_quadratic();
    void close_set();
    void check_indicators() const;
    void close_rows();
    void close_columns();

    LineReader lines_;
    MpsForm form_;
    bool watch_forms_;
    FileModel model_;

    const Section *section_ = nullptr;
    std::vector<const Section *> opened_;
    bool done_ = false;
    bool sense_given_ = false;
    std::string objective_name_;

    bool integer_block_ = false;
    std::vector<std::int32_t> last_column_; // of each row: the last column with an entry in it
    std::vector<double> rhs_;
    std::vector<char> has_rhs_;
    std::vector<MpsRange> range_;      // of each row once there is one; NaN: none
    std::string set_;                  // the first set that the section names
    std::vector<unsigned char> given_; // of each column: bits of what BOUNDS and the markers said

    QuadTerms *quad_ = nullptr; // the quadratic section's terms, which begin at quad_first_
    QuadForm quad_form_ = QuadForm::triangle;
    std::string_view quad_section_;
    std::size_t quad_first_ = 0;
    PairTable pairs_;
    std::vector<char> half_;
    std::vector<char> is_quadratic_; // of each row, once there is a QCMATRIX
    std::vector<char> is_indicator_; // of each row, once there is an IF
};

} // namespace trv
#endif
