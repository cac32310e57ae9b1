// Writes a model as a binary .nl file for an engine that reads no other bulk format. No names: variables and rows are
// known by their places there.
//
// Rows stand in this order: quadratic rows with a quadratic term, nonlinear rows, the row of a nonlinear objective,
// quadratic rows that have become linear, linear rows, two rows for each semi-continuous variable. The quadratic and
// nonlinear part q of the objective is a variable t in the objective and a row q - t <= 0 (>= 0 for a maximum). The
// objective's constant is left out.
#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "file_error.h"
#include "model_files.h"
#include "model_names.h"
#include "nl_order.h"
#include "nl_stream.h"
#include "nl_tape.h"

namespace trv {

void NlStream::sides(double lower, double upper) {
    const bool below = std::isfinite(lower), above = std::isfinite(upper);
    if (!below && !above) {
        letter('3');
    } else if (below && above && lower == upper) {
        letter('4');
        real(lower);
    } else {
        letter(below && above ? '0' : below ? '2' : '1');
        if (below) {
            real(lower);
        }
        if (above) {
            real(upper);
        }
    }
}

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Term {
    std::int32_t place;
    double value;
};

store::Tape tape_of(const TRVnlrows &row) {
    return {row.codeptr[1] - row.codeptr[0], row.code + row.codeptr[0], row.constant};
}
store::Tape tape_of(const TRVnltape &tape) {
    return {tape.ncodes, tape.code, tape.constant};
}

template <typename Work> void each_variable(const store::Tape &tape, Work work) {
    for (std::int64_t k = 0; k < tape.n; ++k) {
        if (tape.code[k] >= 0) {
            work(tape.code[k]);
        }
    }
}

// The model's arrays, all by position, for as long as the writing takes.
class NlSource {
  public:
    explicit NlSource(TRVmodel *model) {
        check(model, TRVgetdata(model, &data));
        read_objective(model);
        read_tapes(model);
        read_matrices(model); // last: nobody gives them back when this constructor fails
    }
    ~NlSource() {
        give_back();
        TRVfreeqmatrix(&qmatrix);
    }
    NlSource(const NlSource &) = delete;
    NlSource &operator=(const NlSource &) = delete;

    TRVdata data;
    TRVmatrix matrix{};
    TRVqmatrix qmatrix{};
    std::vector<std::int32_t> first, second; // the objective's products
    std::vector<double> product;
    std::vector<TRVnlrows> nlrows;      // pointers into the store, by position
    TRVnltape tape{};                   // of the objective
    std::vector<std::int32_t> position; // by id of variable, where there are tapes

  private:
    void give_back() {
        if (owned_) {
            TRVfreematrix(&matrix);
        }
    }
    void read_matrices(TRVmodel *model) {
        check(model, TRVviewrows(model, &matrix));
        if (!matrix.start) {
            check(model, TRVgetmatrix(model, 0, &matrix));
            owned_ = true;
        }
        const int code = TRVgetqmatrix(model, &qmatrix);
        if (code != TRV_OK) {
            give_back();
        }
        check(model, code);
    }
    // Products with a pending variable are left out, as pending variables are everywhere.
    void read_objective(TRVmodel *model) {
        std::int64_t count = 0;
        const std::int32_t *one, *other;
        const double *value;
        check(model, TRVgetqobjective(model, &count, &one, &other, &value));
        for (std::int64_t k = 0; k < count; ++k) {
            const std::int32_t i = TRVposition(model, TRV_VAR, one[k]), j = TRVposition(model, TRV_VAR, other[k]);
            if (i >= 0 && j >= 0) {
                first.push_back(i);
                second.push_back(j);
                product.push_back(value[k]);
            }
        }
    }
    void read_tapes(TRVmodel *model) {
        check(model, TRVgetnlobjective(model, &tape));
        nlrows.resize(static_cast<std::size_t>(data.nnlrows));
        for (std::int32_t i = 0; i < data.nnlrows; ++i) {
            std::int32_t id = -1;
            check(model, TRVidsat(model, TRV_NLCONSTR, 1, &i, &id));
            check(model, TRVgetnlrow(model, id, &nlrows[static_cast<std::size_t>(i)]));
        }
        if (data.nnlrows > 0 || tape.ncodes > 0) {
            position.resize(static_cast<std::size_t>(TRVidcount(model, TRV_VAR)));
            TRVpositions(model, TRV_VAR, static_cast<std::int64_t>(position.size()), nullptr, 0, position.data());
            each_variable(tape_of(tape), [this](std::int32_t id) {
                if (position[static_cast<std::size_t>(id)] < 0) {
                    throw FileError{TRV_ERROR_INVALID_ARGUMENT,
                                    "the nonlinear objective has a variable that is pending"};
                }
            });
        }
    }
    bool owned_ = false;
};

// A row q(x) + linear terms: where its terms stand.
struct Products {
    const std::int32_t *first, *second;
    const double *value;
    std::int32_t count;
};

class NlWriter {
  public:
    explicit NlWriter(TRVmodel *model)
        : source_(model), data_(source_.data), qmatrix_(source_.qmatrix),
          order_(data_, nonlinear_variables(), data_.nqobj > 0 || data_.nnlobj > 0), place_by_id_(places_by_id()),
          tape_(place_by_id_), seen_(static_cast<std::size_t>(order_.size()), -1) {
        for (std::int32_t i = 0; i < data_.nqrows; ++i) {
            (qmatrix_.qstart[i] < qmatrix_.qstart[i + 1] ? quadratic_ : cancelled_).push_back(i);
        }
    }

    void write(TRVmodel *model, const std::string &path) {
        check_tapes(model);
        count_columns();
        count_sides();
        NlStream out(path);
        out_ = &out;
        put_head();
        put_bodies();
        put_start();
        put_row_sides();
        put_bounds();
        put_column_counts();
        put_rows();
        put_objective();
        out.commit();
    }

    const NlOrder &order() const { return order_; }

  private:
    std::vector<char> nonlinear_variables() const {
        std::vector<char> nonlinear(static_cast<std::size_t>(data_.nvars));
        const auto mark = [&](std::int32_t j) { nonlinear[static_cast<std::size_t>(j)] = 1; };
        std::for_each(source_.first.begin(), source_.first.end(), mark);
        std::for_each(source_.second.begin(), source_.second.end(), mark);
        std::for_each(qmatrix_.qvar1, qmatrix_.qvar1 + qmatrix_.nquad, mark);
        std::for_each(qmatrix_.qvar2, qmatrix_.qvar2 + qmatrix_.nquad, mark);
        const auto mark_id = [&](std::int32_t id) { mark(source_.position[static_cast<std::size_t>(id)]); };
        for (const TRVnlrows &row : source_.nlrows) {
            each_variable(tape_of(row), mark_id);
        }
        each_variable(tape_of(source_.tape), mark_id);
        return nonlinear;
    }
    std::vector<std::int32_t> places_by_id() const {
        std::vector<std::int32_t> places(source_.position.size(), -1);
        for (std::size_t id = 0; id < places.size(); ++id) {
            if (source_.position[id] >= 0) {
                places[id] = place(source_.position[id]);
            }
        }
        return places;
    }
    void check_tapes(TRVmodel *model) {
        for (std::int32_t i = 0; i < data_.nnlrows; ++i) {
            const std::string why = tape_.refusal(tape_of(source_.nlrows[static_cast<std::size_t>(i)]));
            if (!why.empty()) {
                const ModelNames names(model, TRV_NLCONSTR, data_.nnlrows);
                throw FileError{TRV_ERROR_UNSUPPORTED, joined("the nonlinear constraint ", shown(names[i]), " ", why)};
            }
        }
        const std::string why = tape_.refusal(tape_of(source_.tape));
        if (!why.empty()) {
            throw FileError{TRV_ERROR_UNSUPPORTED, joined("the nonlinear objective ", why)};
        }
    }

    // ---- counts

    std::int32_t place(std::int32_t j) const { return order_.place[static_cast<std::size_t>(j)]; }
    bool nonlinear_objective() const { return order_.objective_place >= 0; }
    std::int32_t nonlinear_rows() const {
        return static_cast<std::int32_t>(quadratic_.size()) + data_.nnlrows + (nonlinear_objective() ? 1 : 0);
    }
    std::int32_t row_count() const {
        return nonlinear_rows() + static_cast<std::int32_t>(cancelled_.size()) + data_.nrows +
               2 * static_cast<std::int32_t>(order_.semi.size());
    }

    // Entries of the Jacobian in each column; the file says them before it says the rows.
    void count_columns() {
        column_count_.assign(static_cast<std::size_t>(order_.size()), 0);
        each_row([this](std::int32_t, const std::vector<Term> &terms) {
            for (const Term &term : terms) {
                ++column_count_[static_cast<std::size_t>(term.place)];
            }
        });
        for (const std::int32_t count : column_count_) {
            nonzeros_ += count;
        }
    }

    // ---- rows

    Products products_of(std::int32_t qrow) const {
        const std::int32_t begin = qmatrix_.qstart[qrow];
        return {qmatrix_.qvar1 + begin, qmatrix_.qvar2 + begin, qmatrix_.qvalue + begin,
                qmatrix_.qstart[qrow + 1] - begin};
    }
    Products objective_products() const {
        return {source_.first.data(), source_.second.data(), source_.product.data(),
                static_cast<std::int32_t>(source_.first.size())};
    }

    // A row's part of the Jacobian names every variable of the row, with 0 where it is in the nonlinear part alone.
    void add_linear(const std::int32_t *index, const double *value, std::int64_t count) {
        for (std::int64_t k = 0; k < count; ++k) {
            terms_.push_back({place(index[k]), value[k]});
        }
    }
    void see_terms(std::int32_t row) {
        for (const Term &term : terms_) {
            seen_[static_cast<std::size_t>(term.place)] = row;
        }
    }
    void add_nonlinear(const Products &products, std::int32_t row) {
        for (std::int32_t k = 0; k < products.count; ++k) {
            add_unseen(place(products.first[k]), row);
            add_unseen(place(products.second[k]), row);
        }
    }
    void add_nonlinear(const store::Tape &tape, std::int32_t row) {
        each_variable(tape, [&](std::int32_t id) { add_unseen(place_by_id_[static_cast<std::size_t>(id)], row); });
    }
    void add_linear_of(const TRVnlrows &row) {
        for (std::int64_t k = row.ptr[0]; k < row.ptr[1]; ++k) {
            terms_.push_back({place_by_id_[static_cast<std::size_t>(row.var[k])], row.coef[k]});
        }
    }
    void add_unseen(std::int32_t at, std::int32_t row) {
        if (seen_[static_cast<std::size_t>(at)] != row) {
            seen_[static_cast<std::size_t>(at)] = row;
            terms_.push_back({at, 0});
        }
    }
    void add_linear_of(std::int32_t qrow) {
        const std::int32_t begin = qmatrix_.start[qrow];
        add_linear(qmatrix_.index + begin, qmatrix_.value + begin, qmatrix_.start[qrow + 1] - begin);
    }

    // Calls work(row in the file, its terms) for every row in order.
    template <typename Work> void each_row(Work work) {
        std::fill(seen_.begin(), seen_.end(), -1);
        std::int32_t row = 0;
        const auto give = [&] {
            work(row++, terms_);
            terms_.clear();
        };
        for (const std::int32_t i : quadratic_) {
            add_linear_of(i);
            see_terms(row);
            add_nonlinear(products_of(i), row);
            give();
        }
        for (const TRVnlrows &nlrow : source_.nlrows) {
            add_linear_of(nlrow);
            see_terms(row);
            add_nonlinear(tape_of(nlrow), row);
            give();
        }
        if (nonlinear_objective()) {
            terms_.push_back({order_.objective_place, -1});
            see_terms(row);
            add_nonlinear(objective_products(), row);
            add_nonlinear(tape_of(source_.tape), row);
            give();
        }
        for (const std::int32_t i : cancelled_) {
            add_linear_of(i);
            give();
        }
        const TRVmatrix &matrix = source_.matrix;
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            const std::int32_t begin = matrix.start[i];
            add_linear(matrix.index + begin, matrix.value + begin, matrix.start[i + 1] - begin);
            give();
        }
        for (std::size_t s = 0; s < order_.semi.size(); ++s) {
            for (const double *bound : {data_.ub, data_.lb}) {
                terms_.push_back({place(order_.semi[s]), 1});
                terms_.push_back({order_.first_semi + static_cast<std::int32_t>(s), -bound[order_.semi[s]]});
                give();
            }
        }
    }

    void put_rows() {
        each_row([this](std::int32_t row, const std::vector<Term> &terms) {
            if (!terms.empty()) {
                put_terms('J', row, terms);
            }
        });
    }
    void put_terms(char kind, std::int32_t number, const std::vector<Term> &terms) {
        out_->segment(kind, number, static_cast<std::int32_t>(terms.size()));
        for (const Term &term : terms) {
            out_->term(term.place, term.value);
        }
    }

    void put_bodies() {
        std::int32_t row = 0;
        for (const std::int32_t i : quadratic_) {
            put_body(row++, products_of(i), 0);
        }
        for (const TRVnlrows &nlrow : source_.nlrows) {
            out_->segment('C', row++);
            tape_.put(*out_, tape_of(nlrow));
        }
        if (nonlinear_objective()) {
            const store::Tape tape = tape_of(source_.tape);
            put_body(row++, objective_products(), tape.n > 0);
            if (tape.n > 0) {
                tape_.put(*out_, tape);
            }
        }
        for (const std::int32_t end = row_count(); row < end; ++row) {
            out_->segment('C', row);
            out_->number(0);
        }
        out_->segment('O', 0, data_.sense == TRV_MAXIMIZE ? 1 : 0);
        out_->number(0);
    }
    // Further summands follow.
    void put_body(std::int32_t row, const Products &products, std::int32_t further) {
        out_->segment('C', row);
        out_->sum(products.count + further);
        for (std::int32_t k = 0; k < products.count; ++k) {
            out_->product_term(products.value[k], place(products.first[k]), place(products.second[k]));
        }
    }

    // Calls work(lower, upper) for every row in order.
    template <typename Work> void each_sides(Work work) const {
        const auto of_quadratic = [&](std::int32_t i) {
            work(data_.qsense[i] == '<' ? -kInfinity : data_.qrhs[i],
                 data_.qsense[i] == '>' ? kInfinity : data_.qrhs[i]);
        };
        std::for_each(quadratic_.begin(), quadratic_.end(), of_quadratic);
        for (std::int32_t i = 0; i < data_.nnlrows; ++i) {
            work(data_.nllower[i], data_.nlupper[i]);
        }
        if (nonlinear_objective()) {
            const bool maximise = data_.sense == TRV_MAXIMIZE;
            work(maximise ? 0.0 : -kInfinity, maximise ? kInfinity : 0.0);
        }
        std::for_each(cancelled_.begin(), cancelled_.end(), of_quadratic);
        for (std::int32_t i = 0; i < data_.nrows; ++i) {
            work(data_.lower[i], data_.upper[i]);
        }
        for (std::size_t s = 0; s < order_.semi.size(); ++s) {
            work(-kInfinity, 0.0);
            work(0.0, kInfinity);
        }
    }
    void count_sides() {
        each_sides([this](double lower, double upper) {
            equations_ += lower == upper;
            two_sided_ += lower < upper && std::isfinite(lower) && std::isfinite(upper);
        });
    }
    void put_row_sides() {
        out_->letter('r');
        each_sides([this](double lower, double upper) { out_->sides(lower, upper); });
    }

    // ---- variables

    void put_bounds() {
        out_->letter('b');
        for (std::int32_t at = 0; at < order_.size(); ++at) {
            const std::int32_t j = order_.position[static_cast<std::size_t>(at)];
            if (j < 0) {
                const bool objective = at == order_.objective_place;
                out_->sides(objective ? -kInfinity : 0, objective ? kInfinity : 1);
            } else if (is_semicontinuous(data_, j)) {
                out_->sides(std::min(data_.lb[j], 0.0), std::max(data_.ub[j], 0.0));
            } else {
                out_->sides(data_.lb[j], data_.ub[j]);
            }
        }
    }

    void put_column_counts() {
        if (order_.size() == 0) {
            return;
        }
        out_->segment('k', order_.size() - 1);
        std::int64_t sum = 0;
        for (std::int32_t at = 0; at < order_.size() - 1; ++at) {
            sum += column_count_[static_cast<std::size_t>(at)];
            out_->integer(static_cast<std::int32_t>(sum));
        }
    }

    void put_objective() {
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            if (data_.obj[j] != 0) {
                terms_.push_back({place(j), data_.obj[j]});
            }
        }
        if (nonlinear_objective()) {
            terms_.push_back({order_.objective_place, 1});
        }
        if (!terms_.empty()) {
            put_terms('G', 0, terms_);
            terms_.clear();
        }
    }

    // The start, with what follows from it for the variables that were added.
    void put_start() {
        if (!data_.start) {
            return;
        }
        for (std::int32_t j = 0; j < data_.nvars; ++j) {
            add_start(place(j), data_.start[j]);
        }
        for (std::size_t s = 0; s < order_.semi.size(); ++s) {
            const double value = data_.start[order_.semi[s]];
            add_start(order_.first_semi + static_cast<std::int32_t>(s), std::isnan(value) ? value : value != 0);
        }
        if (nonlinear_objective()) {
            add_start(order_.objective_place, objective_at_start());
        }
        if (!terms_.empty()) {
            out_->segment('x', static_cast<std::int32_t>(terms_.size()));
            for (const Term &term : terms_) {
                out_->term(term.place, term.value);
            }
            terms_.clear();
        }
    }
    void add_start(std::int32_t at, double value) {
        if (std::isfinite(value)) {
            terms_.push_back({at, value});
        }
    }
    double objective_at_start() const {
        double sum = 0;
        for (std::size_t k = 0; k < source_.first.size(); ++k) {
            sum += source_.product[k] * data_.start[source_.first[k]] * data_.start[source_.second[k]];
        }
        if (source_.tape.ncodes > 0) {
            std::vector<double> by_id(source_.position.size());
            for (std::size_t id = 0; id < by_id.size(); ++id) {
                by_id[id] = source_.position[id] < 0 ? 0 : data_.start[source_.position[id]];
            }
            sum += store::TapeRun(by_id.data()).value(tape_of(source_.tape)).value;
        }
        return sum;
    }

    // ---- the head: ten lines of text, in the binary form too

    void put_head() {
        const std::string arithmetic = std::endian::native == std::endian::little ? "1" : "2";
        put_line("b3 1 1 0");
        put_line({order_.size(), row_count(), 1, two_sided_, equations_});
        put_line({nonlinear_rows(), 0});
        put_line({0, 0});
        put_line({order_.nonlinear(), 0, 0});
        put_line(" 0 0 " + arithmetic + " 1");
        put_line({order_.binary, order_.integral, 0, order_.nonlinear_integral, 0});
        put_line({nonzeros_, order_.size()});
        put_line({0, 0});
        put_line({0, 0, 0, 0, 0});
    }
    void put_line(const std::string &line) {
        out_->text(line);
        out_->letter('\n');
    }
    void put_line(std::initializer_list<std::int64_t> numbers) {
        std::string line;
        for (const std::int64_t number : numbers) {
            line += ' ' + std::to_string(number);
        }
        put_line(line);
    }

    NlSource source_;
    const TRVdata &data_;
    const TRVqmatrix &qmatrix_;
    NlOrder order_;
    std::vector<std::int32_t> place_by_id_; // of variables, where there are tapes
    NlTape tape_;
    std::vector<std::int32_t> quadratic_, cancelled_; // quadratic rows with and without quadratic terms
    std::vector<std::int32_t> seen_;                  // by place: the last row that named it
    std::vector<std::int32_t> column_count_;
    std::int64_t nonzeros_ = 0;
    std::int64_t two_sided_ = 0, equations_ = 0;
    std::vector<Term> terms_; // of the row in hand
    NlStream *out_ = nullptr;
};

} // namespace
} // namespace trv

extern "C" int TRVwritenl(TRVmodel *model, const char *path, int32_t *nvars, int32_t **position) {
    return trv::guarded(model, path, [&] {
        trv::NlWriter writer(model);
        const std::vector<std::int32_t> &found = writer.order().position;
        auto *copy = static_cast<std::int32_t *>(TRVmalloc((found.size() + 1) * sizeof(std::int32_t)));
        if (!copy) {
            throw std::bad_alloc();
        }
        try {
            writer.write(model, path);
        } catch (...) {
            TRVfree(copy);
            throw;
        }
        std::copy(found.begin(), found.end(), copy);
        *nvars = writer.order().size();
        *position = copy;
    });
}
