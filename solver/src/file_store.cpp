// From a read model file into the model store, in bulk: one call for all variables, one for all linear rows, one for
// all quadratic rows.
#include <utility>

#include "file_error.h"
#include "file_model.h"

namespace trv {
namespace {

template <typename Array> void let_go(Array &array) {
    Array().swap(array);
}

// Names that go to the store, in its order.
struct NameList {
    std::string text;
    std::vector<std::int64_t> offset{0};
    void add(std::string_view name) {
        text.append(name);
        offset.push_back(static_cast<std::int64_t>(text.size()));
    }
    TRVnames list() const {
        TRVnames names{};
        names.form = TRV_NAMES_LIST;
        names.text = text.data();
        names.offset = offset.data();
        return names;
    }
};

// A row without a name gets the store's default, unless the file calls another row so.
std::string name_for_unnamed(const NameTable &taken, char letter, std::int32_t id) {
    const std::string usual = letter + std::to_string(id);
    std::string name = usual;
    for (int i = 1; taken.find(name) >= 0; ++i) {
        name = joined(usual, "_", std::to_string(i));
    }
    return name == usual ? std::string() : name;
}

// The file's rows told apart: linear ones and quadratic ones, each kind in the file's order. The objective is neither.
struct Split {
    std::vector<char> kind;           // by the file's number: 'L' 'Q', '-' for the objective
    std::vector<std::int32_t> number; // among its kind
    std::int32_t nlinear = 0, nquadratic = 0;
    NameList linear_names, quadratic_names;

    Split(TRVmodel *target, const FileModel &source) {
        const auto nrows = static_cast<std::size_t>(source.rows.size());
        kind.assign(nrows, 'L');
        for (const std::int32_t row : source.qrow) {
            kind[static_cast<std::size_t>(row)] = 'Q';
        }
        if (source.objective >= 0) {
            kind[static_cast<std::size_t>(source.objective)] = '-';
        }
        const std::int32_t linear_id = TRVidcount(target, TRV_CONSTR), quadratic_id = TRVidcount(target, TRV_QCONSTR);
        number.assign(nrows, -1);
        for (std::size_t i = 0; i < nrows; ++i) {
            if (kind[i] == '-') {
                continue;
            }
            const bool linear = kind[i] == 'L';
            number[i] = linear ? nlinear++ : nquadratic++;
            const std::string_view name = source.rows[static_cast<std::int32_t>(i)];
            NameList &names = linear ? linear_names : quadratic_names;
            names.add(!name.empty() ? name
                                    : name_for_unnamed(source.rows, linear ? 'R' : 'Q',
                                                       (linear ? linear_id : quadratic_id) + number[i]));
        }
    }
};

// Calls f(row, column, value) for each linear term, in the file's order.
template <typename F> void each_term(const FileModel &source, F f) {
    for (std::size_t major = 0; major < source.start.size(); ++major) {
        const std::size_t last =
            major + 1 < source.start.size() ? static_cast<std::size_t>(source.start[major + 1]) : source.entry.size();
        for (auto k = static_cast<std::size_t>(source.start[major]); k < last; ++k) {
            const auto other = static_cast<std::size_t>(source.entry[k]);
            f(source.by_rows ? major : other, source.by_rows ? other : major, source.entry_value[k]);
        }
    }
}

// Counted, placed: a format by columns gives rows in column order, one by rows keeps their order.
class Placer {
  public:
    Placer(const FileModel &source, const Split &split) : source_(source), split_(split), count_(split.kind.size()) {
        each_term(source, [&](std::size_t row, std::size_t, double) { ++count_[row]; });
        for (std::size_t i = 0; i < count_.size(); ++i) {
            linear_ += split.kind[i] == 'L' ? count_[i] : 0;
            quadratic_ += split.kind[i] == 'Q' ? count_[i] : 0;
        }
    }
    std::int64_t linear() const { return linear_; }
    std::int64_t quadratic() const { return quadratic_; }

    // All terms of one kind of rows; ptr has an entry more than there are rows.
    void fill(char kind, std::int32_t first, std::int64_t *ptr, std::int32_t *var, double *coef) const {
        std::vector<std::int64_t> next(count_.size());
        std::int64_t total = 0;
        *ptr = 0;
        for (std::size_t i = 0; i < count_.size(); ++i) {
            if (split_.kind[i] == kind) {
                next[i] = total;
                total += count_[i];
                *++ptr = total;
            }
        }
        each_term(source_, [&](std::size_t row, std::size_t column, double value) {
            if (split_.kind[row] == kind) {
                const std::int64_t place = next[row]++;
                var[place] = first + static_cast<std::int32_t>(column);
                coef[place] = value;
            }
        });
    }

  private:
    const FileModel &source_;
    const Split &split_;
    std::vector<std::int64_t> count_;
    std::int64_t linear_ = 0, quadratic_ = 0;
};

// What was added and is taken back, unless all goes well: reading checked everything, so what can still fail is memory.
class Added {
  public:
    explicit Added(TRVmodel *target) : target_(target) {}
    ~Added() {
        for (const Block &block : blocks_) {
            for (std::int32_t i = 0; i < block.count; ++i) {
                const std::int32_t id = block.first + i;
                TRVremove(target_, block.kind, 1, &id);
            }
        }
    }
    Added(const Added &) = delete;
    Added &operator=(const Added &) = delete;
    void expect() { blocks_.reserve(3); }
    void add(int kind, std::int32_t first, std::int32_t count) { blocks_.push_back({kind, first, count}); }
    void keep() { blocks_.clear(); }

  private:
    struct Block {
        int kind;
        std::int32_t first, count;
    };
    TRVmodel *target_;
    std::vector<Block> blocks_;
};

class Storing {
  public:
    Storing(TRVmodel *target, FileModel source)
        : target_(target), source_(std::move(source)), split_(target, source_), added_(target) {
        added_.expect();
    }
    void run() {
        add_columns();
        add_rows();
        add_quadratic_rows();
        set_objective();
        added_.keep();
        check(target_, TRVsetintattr(target_, "ModelSense", source_.sense));
        check(target_, TRVsetstrattr(target_, "ModelName", source_.name.c_str()));
        check(target_, TRVupdatemodel(target_));
    }

  private:
    void add_columns() {
        const std::int32_t nvars = source_.columns.size();
        if (nvars == 0) {
            return;
        }
        const TRVnames names = source_.columns.list();
        check(target_, TRVaddvars(target_, nvars, source_.lb.data(), 1, source_.ub.data(), 1, source_.cost.data(), 1,
                                  source_.vtype.data(), 1, &names, &first_));
        added_.add(TRV_VAR, first_, nvars);
    }

    void add_rows() {
        const Placer placer(source_, split_);
        fill_quadratic(placer);
        if (split_.nlinear > 0) {
            TRVrows block;
            check(target_, TRVopenrows(target_, split_.nlinear, placer.linear(), &block));
            try {
                placer.fill('L', first_, block.ptr, block.var, block.coef);
                let_go(source_.entry);
                let_go(source_.entry_value);
                commit_rows();
            } catch (...) {
                TRVdroprows(target_);
                throw;
            }
        }
    }

    void commit_rows() {
        std::vector<double> lower, upper;
        for (std::size_t i = 0; i < split_.kind.size(); ++i) {
            if (split_.kind[i] == 'L') {
                lower.push_back(source_.lower[i]);
                upper.push_back(source_.upper[i]);
            }
        }
        const TRVnames names = split_.linear_names.list();
        std::int32_t row;
        check(target_, TRVcommitrows(target_, lower.data(), 1, upper.data(), 1, &names, &row));
        added_.add(TRV_CONSTR, row, split_.nlinear);
    }

    // ---- quadratic

    struct QuadraticRows {
        std::vector<std::int64_t> ptr, qptr;
        std::vector<std::int32_t> var, first, second;
        std::vector<double> coef, qcoef;
        std::vector<char> sense;
        std::vector<double> rhs;
    };

    // Before the linear terms are let go.
    void fill_quadratic(const Placer &placer) {
        const auto nrows = static_cast<std::size_t>(split_.nquadratic);
        if (nrows == 0) {
            return;
        }
        const auto nterms = static_cast<std::size_t>(placer.quadratic());
        quadratic_.ptr.resize(nrows + 1);
        quadratic_.var.resize(nterms);
        quadratic_.coef.resize(nterms);
        placer.fill('Q', first_, quadratic_.ptr.data(), quadratic_.var.data(), quadratic_.coef.data());
        for (std::size_t i = 0; i < split_.kind.size(); ++i) {
            if (split_.kind[i] == 'Q') {
                const char type = source_.row_type[i];
                quadratic_.sense.push_back(type == 'L' ? '<' : type == 'G' ? '>' : '=');
                quadratic_.rhs.push_back(type == 'G' ? source_.lower[i] : source_.upper[i]);
            }
        }
        gather_products(nrows);
    }

    // The sections of quadratic terms may come in any order of the rows.
    void gather_products(std::size_t nrows) {
        std::vector<std::size_t> section(nrows);
        for (std::size_t s = 0; s < source_.qrow.size(); ++s) {
            section[static_cast<std::size_t>(split_.number[static_cast<std::size_t>(source_.qrow[s])])] = s;
        }
        quadratic_.qptr.push_back(0);
        for (const std::size_t s : section) {
            const std::size_t last =
                s + 1 < source_.qstart.size() ? static_cast<std::size_t>(source_.qstart[s + 1]) : source_.qterms.size();
            for (auto k = static_cast<std::size_t>(source_.qstart[s]); k < last; ++k) {
                quadratic_.first.push_back(first_ + source_.qterms.first[k]);
                quadratic_.second.push_back(first_ + source_.qterms.second[k]);
                quadratic_.qcoef.push_back(source_.qterms.value[k]);
            }
            quadratic_.qptr.push_back(static_cast<std::int64_t>(quadratic_.qcoef.size()));
        }
        source_.qterms = {};
    }

    void add_quadratic_rows() {
        if (split_.nquadratic == 0) {
            return;
        }
        const QuadraticRows &q = quadratic_;
        const TRVqrows rows{q.ptr.data(),   q.var.data(),    q.coef.data(), q.qptr.data(),
                            q.first.data(), q.second.data(), q.qcoef.data()};
        const TRVnames names = split_.quadratic_names.list();
        std::int32_t row;
        check(target_,
              TRVaddqrows(target_, split_.nquadratic, &rows, q.sense.data(), 1, q.rhs.data(), 1, &names, &row));
        added_.add(TRV_QCONSTR, row, split_.nquadratic);
    }

    void set_objective() {
        QuadTerms &q = source_.qobjective;
        if (q.size() == 0) {
            check(target_, TRVsetdblattr(target_, "ObjConstant", source_.constant));
            return;
        }
        for (std::size_t k = 0; k < q.size(); ++k) {
            q.first[k] += first_;
            q.second[k] += first_;
        }
        check(target_, TRVsetqobjective(target_, 0, nullptr, nullptr, static_cast<std::int64_t>(q.size()),
                                        q.first.data(), q.second.data(), q.value.data(), source_.constant, 0));
        check(target_, TRVsetdbls(target_, "Obj", source_.columns.size(), nullptr, first_, source_.cost.data(), 1));
    }

    TRVmodel *target_;
    FileModel source_;
    Split split_;
    Added added_;
    std::int32_t first_ = 0; // id of the file's first column
    QuadraticRows quadratic_;
};

} // namespace

void store_model(TRVmodel *target, FileModel source) {
    Storing(target, std::move(source)).run();
}

} // namespace trv
