// Writes a model as MPS: free form, or fixed form where a name has blanks.
//
// Nothing is written before everything is known to fit. One entry stands in a line, so that the number of a fixed line
// may run on to the right of its twelve columns (readers take the rest of the line), and every double is written
// exactly.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory>

#include "file_stream.h"
#include "model_names.h"
#include "mps_sides.h"
#include "text_scan.h"

namespace trv {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::size_t kFixedName = 8;

[[noreturn]] void refuse(const std::string &what) {
    throw FileError{TRV_ERROR_UNSUPPORTED, "MPS: " + what};
}

struct Matrix : TRVmatrix {
    explicit Matrix(TRVmodel *model) : TRVmatrix{} { check(model, TRVgetmatrix(model, 1, this)); }
    ~Matrix() { TRVfreematrix(this); }
    Matrix(const Matrix &) = delete;
    Matrix &operator=(const Matrix &) = delete;
};

// -0.0 is not nothing: it is written, and comes back.
bool is_default(double value) {
    return value == 0 && !std::signbit(value);
}

class MpsWriter {
  public:
    explicit MpsWriter(TRVmodel *model)
        : data_(data_of(model)), columns_(model, TRV_VAR, data_.nvars), rows_(model, TRV_CONSTR, data_.nrows),
          matrix_(model) {
        const char *name;
        check(model, TRVgetstrattr(model, "ModelName", &name));
        name_ = name;
        check_model_name();
        check_names(columns_, "variable");
        check_names(rows_, "row");
        choose_objective_name();
        make_row_forms();
    }

    void write(const std::string &path) {
        FileWriter file(path);
        file_ = &file;
        put_head();
        put_rows();
        put_columns();
        put_sides();
        put_bounds();
        file.put("ENDATA\n");
        file.commit();
    }

  private:
    static TRVdata data_of(TRVmodel *model) {
        TRVdata data;
        check(model, TRVupdatemodel(model));
        check(model, TRVgetdata(model, &data));
        return data;
    }

    // ---- what fits

    void check_model_name() const {
        if (has_control(name_) || trimmed(name_).size() != name_.size()) {
            refuse("the model's name " + shown(name_) + " has control characters, or blanks at an end");
        }
    }

    void check_names(ModelNames &names, const std::string &kind) {
        names.refuse_doubled("MPS: ", kind);
        for (std::int32_t i = 0; i < names.size(); ++i) {
            const std::string_view name = names[i];
            if (name.empty()) {
                refuse(joined("the ", kind, " ", std::to_string(i), " has an empty name"));
            }
            if (has_control(name)) {
                refuse(joined("the name ", shown(name), " of a ", kind, " has control characters"));
            }
            if (name.find(' ') != std::string_view::npos) {
                check_blanks(name, kind);
            }
            longest_ = name.size() > longest_.size() ? name : longest_;
        }
    }

    void check_blanks(std::string_view name, const std::string &kind) {
        if (trimmed(name).size() != name.size() || name.size() > kFixedName) {
            refuse(joined("the name ", shown(name), " of a ", kind, " has blanks, and ",
                          name.size() > kFixedName ? "more than 8 bytes" : "some at an end"));
        }
        with_blanks_ = with_blanks_.empty() ? name : with_blanks_;
    }

    void choose_objective_name() {
        if (fixed() && longest_.size() > kFixedName) {
            refuse(joined("the name ", shown(with_blanks_), " has blanks, which only the fixed form can say, and ",
                          shown(longest_), " has more than its 8 bytes"));
        }
        objective_ = "OBJ";
        for (int i = 1; rows_.find(objective_) >= 0; ++i) {
            objective_ = "OBJ" + std::to_string(i);
        }
    }

    void make_row_forms() {
        forms_.resize(static_cast<std::size_t>(data_.nrows));
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            const Sides sides{data_.lower[i], data_.upper[i]};
            if (!mps_row_form(sides, forms_[static_cast<std::size_t>(i)])) {
                char lower[kNumberSize], upper[kNumberSize];
                refuse(joined("the row ", shown(rows_[i]), " has its lower side ", number_text(sides.lower, lower),
                              " above its upper side ", number_text(sides.upper, upper)));
            }
        }
    }

    // ---- lines

    bool fixed() const { return !with_blanks_.empty(); }

    void pad(std::size_t used, std::size_t width) {
        static constexpr std::string_view blanks = "            ";
        file_->put(fixed() && used < width ? blanks.substr(0, width - used) : std::string_view());
    }

    // Fields: two of type, name of 8 and 2 blanks, name of 8 and 2 blanks, number.
    void put_line(std::string_view type, std::string_view head, std::string_view name, std::string_view number) {
        file_->put(" ");
        file_->put(type);
        pad(type.size(), 2);
        file_->put(" ");
        file_->put(head);
        if (!name.empty()) {
            pad(head.size(), kFixedName);
            file_->put("  ");
            file_->put(name);
        }
        if (!number.empty()) {
            pad(name.size(), kFixedName);
            file_->put("  ");
            file_->put(number);
        }
        file_->put("\n");
    }

    void put_line(std::string_view type, std::string_view head, std::string_view name, double number) {
        char buffer[kNumberSize];
        const bool infinite = std::isinf(number);
        put_line(type, head, name, !infinite ? number_text(number, buffer) : number > 0 ? "1e30" : "-1e30");
    }

    // ---- sections

    void put_head() {
        file_->put("NAME");
        if (!name_.empty()) {
            file_->put("          ");
            file_->put(name_);
        }
        file_->put(data_.sense == TRV_MAXIMIZE ? "\nOBJSENSE\n    MAX\n" : "\n");
    }

    void put_rows() {
        file_->put("ROWS\n");
        put_line("N", objective_, {}, std::string_view());
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            put_line({&forms_[static_cast<std::size_t>(i)].type, 1}, rows_[i], {}, std::string_view());
        }
    }

    void put_marker(bool opens) {
        file_->put(opens ? "    MARKER                 'MARKER'                 'INTORG'\n"
                         : "    MARKER                 'MARKER'                 'INTEND'\n");
    }

    void put_columns() {
        file_->put("COLUMNS\n");
        bool integer_block = false;
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            const bool integer = data_.vtype[j] == 'I' || data_.vtype[j] == 'B';
            if (integer != integer_block) {
                put_marker(integer);
                integer_block = integer;
            }
            const std::int32_t begin = matrix_.start[j], end = matrix_.start[j + 1];
            if (!is_default(data_.obj[j]) || begin == end) { // a column without entries must stand somewhere
                put_line({}, columns_[j], objective_, data_.obj[j]);
            }
            for (std::int32_t k = begin; k < end; ++k) {
                put_line({}, columns_[j], rows_[matrix_.index[k]], matrix_.value[k]);
            }
        }
        if (integer_block) {
            put_marker(false);
        }
    }

    void put_sides() {
        file_->put("RHS\n");
        if (!is_default(data_.objconstant)) {
            put_line({}, "RHS", objective_, -data_.objconstant);
        }
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            const MpsRowForm &form = forms_[static_cast<std::size_t>(i)];
            if (!is_default(form.rhs)) {
                put_line({}, "RHS", rows_[i], form.rhs);
            }
        }
        bool any = false;
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            const MpsRowForm &form = forms_[static_cast<std::size_t>(i)];
            if (!form.range.empty()) {
                file_->put(any ? "" : "RANGES\n");
                any = true;
                put_line({}, "RNG", rows_[i], form.range);
            }
        }
    }

    void put_bounds() {
        file_->put("BOUNDS\n");
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            switch (data_.vtype[j]) {
            case 'B':
                put_binary(j);
                break;
            case 'S':
                put_lower(j);
                bound("SC", j, data_.ub[j]);
                break;
            default:
                put_both(j);
            }
        }
    }

    void bound(std::string_view type, std::int32_t j) { put_line(type, "BND", columns_[j], std::string_view()); }
    void bound(std::string_view type, std::int32_t j, double value) { put_line(type, "BND", columns_[j], value); }

    void put_lower(std::int32_t j) {
        if (data_.lb[j] == -kInfinity) {
            bound("MI", j);
        } else if (!is_default(data_.lb[j])) {
            bound("LO", j, data_.lb[j]);
        }
    }

    // BV comes last and both other sides before it: readers that know no order keep the sides that came first.
    void put_binary(std::int32_t j) {
        if (!is_default(data_.lb[j]) || data_.ub[j] != 1) {
            put_lower(j);
            bound("UP", j, data_.ub[j]);
        }
        bound("BV", j);
    }

    void put_both(std::int32_t j) {
        const double lower = data_.lb[j], upper = data_.ub[j];
        const bool integer = data_.vtype[j] == 'I';
        if (lower == -kInfinity && upper == kInfinity) {
            bound("FR", j);
        } else if (lower == upper && std::signbit(lower) == std::signbit(upper)) {
            bound("FX", j, upper);
        } else if (upper == kInfinity) {
            put_lower(j);
            if (integer && is_default(lower)) {
                bound("PL", j); // without any bound it would be read as [0, 1]
            }
        } else {
            if (upper < 0 && is_default(lower)) {
                bound("LO", j, lower); // many readers take the zero away, unless it is said
            }
            put_lower(j);
            bound("UP", j, upper);
        }
    }

    TRVdata data_;
    ModelNames columns_, rows_;
    Matrix matrix_;
    std::string name_, objective_;
    std::string_view with_blanks_, longest_; // the first name with blanks, empty if there is none; the longest name
    std::vector<MpsRowForm> forms_;
    FileWriter *file_ = nullptr;
};

} // namespace

void write_mps(TRVmodel *model, const std::string &path) {
    MpsWriter(model).write(path);
}

} // namespace trv
