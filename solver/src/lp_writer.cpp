// Writes a model as an LP file.
//
// Nothing is written before everything is known to fit. Variables come back in the order in which the file names them
// first, so the objective lists as many of them, with zeros where need be, as the rows do not bring in order.
#include <algorithm>
#include <cmath>
#include <limits>

#include "file_stream.h"
#include "lp_lexer.h"
#include "lp_model.h"
#include "stop.h"
#include "text_scan.h"
#include "written_model.h"

namespace trv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::size_t kWidth = 100; // where lines are wrapped

[[noreturn]] void refuse(const std::string &what) {
    throw FileError{TRV_ERROR_UNSUPPORTED, "LP: " + what};
}

void check_names(const ModelNames &names, const std::string &kind) {
    for (std::int32_t i = 0; i < names.size(); ++i) {
        check_stop_at(i);
        const std::string_view flaw = lp_name_flaw(names[i]);
        if (!flaw.empty()) {
            refuse(joined("the name ", shown(names[i]), " of a ", kind, " ", flaw));
        }
    }
}

class LpWriter {
  public:
    explicit LpWriter(TRVmodel *model)
        : model_(model, 0), data_(model_.data), columns_(model_.columns), matrix_(model_.matrix),
          qmatrix_(model_.qmatrix) {
        check_model_name();
        model_.refuse_doubled("LP: ");
        check_names(columns_, "variable");
        check_names(model_.rows, "row");
        check_names(model_.qrows, "row");
        check_names(model_.gens, "general constraint");
        check_quadratic_rows();
    }

    void write(const std::string &path) {
        FileWriter file(path);
        file_ = &file;
        put_objective();
        put_rows();
        put_quadratic_rows();
        put_indicators();
        put_bounds();
        put_types("General", 'I');
        put_types("Binary", 'B');
        put_types("Semi-Continuous", 'S');
        put_sets();
        file.put("End\n");
        file.commit();
    }

  private:
    // ---- what fits

    void check_model_name() const {
        if (has_control(model_.name) || trimmed(model_.name).size() != model_.name.size()) {
            refuse("the model's name " + shown(model_.name) + " has control characters, or blanks at an end");
        }
    }

    void check_quadratic_rows() const {
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            const double rhs = data_.qrhs[i];
            if (std::isinf(rhs) && (data_.qsense[i] == '=' || (data_.qsense[i] == '<') != (rhs > 0))) {
                refuse(joined("the quadratic row ", shown(model_.qrows[i]), " has an infinite right-hand side"));
            }
        }
    }

    // How many variables the objective lists: all of its own, and no fewer than leave the others to the rows in order.
    std::int32_t listed() const {
        constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();
        std::vector<std::int64_t> met(static_cast<std::size_t>(data_.nvars), never);
        std::int64_t time = 0;
        const auto meet = [&](std::int32_t column) {
            std::int64_t &first = met[static_cast<std::size_t>(column)];
            first = std::min(first, time++);
        };
        std::for_each_n(matrix_.index, matrix_.nnz, meet);
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            std::for_each_n(qmatrix_.index + qmatrix_.start[i], qmatrix_.start[i + 1] - qmatrix_.start[i], meet);
            for (std::int32_t k = qmatrix_.qstart[i]; k < qmatrix_.qstart[i + 1]; ++k) {
                meet(qmatrix_.qvar1[k]);
                meet(qmatrix_.qvar2[k]);
            }
        }
        for (const WrittenIndicator &indicator : model_.indicators) {
            meet(indicator.variable);
            std::for_each_n(model_.genmatrix.index + indicator.begin, indicator.end - indicator.begin, meet);
        }
        std::int32_t needed = 0; // by the objective
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            needed = is_default(data_.obj[j]) ? needed : j + 1;
        }
        for (std::size_t k = 0; k < model_.qobjective.size(); ++k) {
            needed = std::max({needed, model_.qobjective.first[k] + 1, model_.qobjective.second[k] + 1});
        }
        std::int64_t next = never;
        std::int32_t j = data_.nvars;
        for (; j > needed && met[static_cast<std::size_t>(j) - 1] < next; --j) {
            next = met[static_cast<std::size_t>(j) - 1];
        }
        return j;
    }

    // ---- words, in lines of a limited width

    void begin_line(std::string_view text) {
        file_->put(" ");
        file_->put(text);
        width_ = text.size();
    }

    void put_word(std::string_view text) {
        if (width_ + text.size() > kWidth) {
            file_->put("\n ");
            width_ = 0;
        }
        file_->put(" ");
        file_->put(text);
        width_ += text.size() + 1;
    }

    void end_line() { file_->put("\n"); }

    std::string_view side_text(double value) {
        return std::isinf(value) ? (value > 0 ? "inf" : "-inf") : number_text(value, buffer_);
    }

    // "+ 3 x": the sign, the number unless it is 1, the name. One word, so that no line ends inside of it.
    void put_term(double coefficient, std::string_view name, std::string_view behind = {}) {
        word_.assign(std::signbit(coefficient) ? "- " : "+ ");
        const double size = std::fabs(coefficient);
        if (size != 1) {
            word_.append(number_text(size, buffer_)).append(" ");
        }
        put_word(word_.append(name).append(behind));
    }

    void put_product(double coefficient, std::int32_t first, std::int32_t second) {
        behind_.assign(first == second ? " ^2" : " * ");
        if (first != second) {
            behind_.append(columns_[second]);
        }
        put_term(coefficient, columns_[first], behind_);
    }

    // ---- sections

    void put_objective() {
        if (!model_.name.empty()) {
            file_->put("\\Problem name: ");
            file_->put(model_.name);
            file_->put("\n");
        }
        file_->put(data_.sense == TRV_MAXIMIZE ? "Maximize\n" : "Minimize\n");
        begin_line(model_.objective_name("obj") + ":");
        const std::int32_t count = listed();
        for (std::int32_t j = 0; j < count; ++j) {
            put_term(data_.obj[j], columns_[j]);
        }
        const QuadTerms &q = model_.qobjective;
        if (q.size() > 0) {
            put_word("+ [");
            for (std::size_t k = 0; k < q.size(); ++k) {
                put_product(2 * q.value[k], q.first[k], q.second[k]);
            }
            put_word("] / 2");
        }
        // Last: some readers take no sign behind a constant.
        if (!is_default(data_.objconstant)) {
            put_word(std::signbit(data_.objconstant) ? "-" : "+");
            put_word(number_text(std::fabs(data_.objconstant), buffer_));
        }
        end_line();
    }

    void put_rows() {
        file_->put("Subject To\n");
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            begin_line(model_.rows[i]);
            file_->put(":");
            put_row(data_.lower[i], data_.upper[i], matrix_.index + matrix_.start[i], matrix_.value + matrix_.start[i],
                    matrix_.start[i + 1] - matrix_.start[i]);
        }
    }

    void put_row(double lower, double upper, const std::int32_t *index, const double *value, std::int64_t n) {
        const bool no_terms = n == 0 && data_.nvars == 0;
        const bool both = no_terms || (lower != upper && std::isinf(lower) == std::isinf(upper));
        if (both) {
            put_word(side_text(lower));
            put_word("<=");
        }
        for (std::int64_t k = 0; k < n; ++k) {
            put_term(value[k], columns_[index[k]]);
        }
        if (n == 0) {
            put_word(no_terms ? std::string_view("0") : joined("0 ", columns_[0]));
        }
        put_word(both || lower == -kInfinity ? "<=" : lower == upper ? "=" : ">=");
        put_word(side_text(both || lower == -kInfinity ? upper : lower));
        end_line();
    }

    void put_indicators() {
        for (const WrittenIndicator &indicator : model_.indicators) {
            begin_line(model_.gens[indicator.gen]);
            file_->put(":");
            put_word(joined(columns_[indicator.variable], indicator.value == 0 ? " = 0 ->" : " = 1 ->"));
            put_row(indicator.lower, indicator.upper, model_.genmatrix.index + indicator.begin,
                    model_.genmatrix.value + indicator.begin, indicator.end - indicator.begin);
        }
    }

    void put_sets() {
        file_->put(model_.sets.empty() ? "" : "SOS\n");
        for (const WrittenSet &set : model_.sets) {
            begin_line(model_.gens[set.gen]);
            file_->put(":");
            put_word(set.type == 1 ? "S1::" : "S2::");
            for (std::size_t i = 0; i < set.variable.size(); ++i) {
                put_word(joined(columns_[set.variable[i]], ":", number_text(set.weight[i], buffer_)));
            }
            end_line();
        }
    }

    void put_quadratic_rows() {
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            begin_line(model_.qrows[i]);
            file_->put(":");
            for (std::int32_t k = qmatrix_.start[i]; k < qmatrix_.start[i + 1]; ++k) {
                put_term(qmatrix_.value[k], columns_[qmatrix_.index[k]]);
            }
            put_word("+ [");
            const std::int32_t begin = qmatrix_.qstart[i], end = qmatrix_.qstart[i + 1];
            for (std::int32_t k = begin; k < end; ++k) {
                put_product(qmatrix_.qvalue[k], qmatrix_.qvar1[k], qmatrix_.qvar2[k]);
            }
            if (begin == end && data_.nvars > 0) { // a row whose products went away stays quadratic
                put_product(0, 0, 0);
            }
            put_word("]");
            put_word(data_.qsense[i] == '<' ? "<=" : data_.qsense[i] == '>' ? ">=" : "=");
            put_word(side_text(data_.qrhs[i]));
            end_line();
        }
    }

    void put_bounds() {
        file_->put("Bounds\n");
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            const double lower = data_.lb[j], upper = data_.ub[j];
            const double usual = data_.vtype[j] == 'B' ? 1 : kInfinity;
            const bool usual_lower = is_default(lower), usual_upper = upper == usual;
            if (usual_lower && usual_upper) {
                continue;
            }
            if (lower == -kInfinity && upper == kInfinity) {
                put_bound({}, {}, columns_[j], " free", {});
            } else if (lower == upper && std::signbit(lower) == std::signbit(upper)) {
                put_bound({}, {}, columns_[j], " = ", side_text(upper));
            } else if (usual_upper) {
                put_bound({}, {}, columns_[j], " >= ", side_text(lower));
            } else {
                // Both, where one would do: readers differ over an upper bound below zero that stands alone.
                const std::string left(side_text(lower));
                put_bound(left, " <= ", columns_[j], " <= ", side_text(upper));
            }
        }
    }

    void put_bound(std::string_view left, std::string_view sign, std::string_view name, std::string_view second_sign,
                   std::string_view right) {
        file_->put(" ");
        file_->put(left);
        file_->put(sign);
        file_->put(name);
        file_->put(second_sign);
        file_->put(right);
        file_->put("\n");
    }

    void put_types(std::string_view title, char vtype) {
        if (std::find(data_.vtype, data_.vtype + data_.nvars, vtype) == data_.vtype + data_.nvars) {
            return;
        }
        file_->put(title);
        file_->put("\n");
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            if (data_.vtype[j] == vtype) { // one a line: "subject" and "to" side by side begin a section
                begin_line(columns_[j]);
                end_line();
            }
        }
    }

    WrittenModel model_;
    const TRVdata &data_;
    const ModelNames &columns_;
    const TRVmatrix &matrix_;
    const TRVqmatrix &qmatrix_;
    FileWriter *file_ = nullptr;
    std::size_t width_ = 0; // of the line so far
    std::string word_, behind_;
    char buffer_[kNumberSize];
};

} // namespace

void write_lp(TRVmodel *model, const std::string &path) {
    LpWriter(model).write(path);
}

} // namespace trv
