// From a read model file into the model store, in bulk: one call for all variables, one for all linear rows, one for
// all quadratic rows, one for all indicators, and one for each type of sets.
#include <utility>

#include "file_error.h"
#include "file_model.h"
#include "stop.h"

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

// The file's rows told apart: linear ones, quadratic ones and those of indicators, each kind in the file's order. The
// objective is none of these.
struct Split {
    struct Kind {
        std::int32_t count = 0;
        NameList names;
    };
    std::vector<char> kind;           // by the file's number: 'L' 'Q' 'I', '-' for the objective
    std::vector<std::int32_t> number; // among its kind
    Kind linear, quadratic, indicator;

    Split(TRVmodel *target, const FileModel &source) {
        const auto nrows = static_cast<std::size_t>(source.rows.size());
        kind.assign(nrows, 'L');
        for (const std::int32_t row : source.qrow) {
            kind[static_cast<std::size_t>(row)] = 'Q';
        }
        for (const std::int32_t row : source.indicators.row) {
            kind[static_cast<std::size_t>(row)] = 'I';
        }
        if (source.objective >= 0) {
            kind[static_cast<std::size_t>(source.objective)] = '-';
        }
        number.assign(nrows, -1);
        for (std::size_t i = 0; i < nrows; ++i) {
            check_stop_at(static_cast<std::int64_t>(i));
            if (kind[i] == 'L') {
                enter(target, source, i, linear, TRV_CONSTR, 'R');
            } else if (kind[i] == 'Q') {
                enter(target, source, i, quadratic, TRV_QCONSTR, 'Q');
            } else if (kind[i] == 'I') {
                enter(target, source, i, indicator, TRV_GENCONSTR, 'G');
            }
        }
    }

  private:
    void enter(TRVmodel *target, const FileModel &source, std::size_t row, Kind &list, int store_kind, char letter) {
        number[row] = list.count++;
        const std::string_view name = source.rows[static_cast<std::int32_t>(row)];
        list.names.add(
            !name.empty() ? name : name_for_unnamed(source.rows, letter, TRVidcount(target, store_kind) + number[row]));
    }
};

// Calls f(row, column, value) for each linear term, in the file's order.
template <typename F> void each_term(const FileModel &source, F f) {
    for (std::size_t major = 0; major < source.start.size(); ++major) {
        check_stop_at(static_cast<std::int64_t>(major));
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
    }
    // How many terms rows of this kind have.
    std::int64_t terms(char kind) const {
        std::int64_t sum = 0;
        for (std::size_t i = 0; i < count_.size(); ++i) {
            sum += split_.kind[i] == kind ? count_[i] : 0;
        }
        return sum;
    }

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
};

// What was added and is taken back, unless all goes well: reading checked everything, so what can still fail is memory,
// and taking back needs none.
class Added {
  public:
    explicit Added(TRVmodel *target) : target_(target) {
        const char *name;
        check(target_, TRVgetstrattr(target_, "ModelName", &name));
        name_ = name;
        check(target_, TRVgetintattr(target_, "ModelSense", &sense_));
    }
    ~Added() {
        if (!kept_) {
            TRVsetobjective(target_, 0, nullptr, nullptr, 0, sense_);
            TRVsetstrattr(target_, "ModelName", name_.c_str()); // there was room for it
        }
        for (auto block = blocks_.rbegin(); block != blocks_.rend(); ++block) { // general constraints hold variables
            for (std::int32_t i = 0; i < block->count; ++i) {
                const std::int32_t id = block->first + i;
                TRVremove(target_, block->kind, 1, &id);
            }
        }
    }
    Added(const Added &) = delete;
    Added &operator=(const Added &) = delete;
    // Before elements are added, so that what was added can be noted and removed.
    void expect(int kind, std::int32_t count) {
        blocks_.reserve(blocks_.size() + 1);
        check(target_, TRVexpectremoval(target_, kind, count));
    }
    void add(int kind, std::int32_t first, std::int32_t count) { blocks_.push_back({kind, first, count}); }
    void keep() {
        for (const Block &block : blocks_)
            TRVexpectremoval(target_, block.kind, 0);
        blocks_.clear();
        kept_ = true;
    }

  private:
    struct Block {
        int kind;
        std::int32_t first, count;
    };
    TRVmodel *target_;
    std::vector<Block> blocks_;
    std::string name_;
    int sense_ = TRV_MINIMIZE;
    bool kept_ = false;
};

class Storing {
  public:
    Storing(TRVmodel *target, FileModel source)
        : target_(target), source_(std::move(source)), split_(target, source_), added_(target) {}
    void run() {
        add_columns();
        check_stop();
        add_rows();
        check_stop();
        add_quadratic_rows();
        add_indicators();
        add_sets();
        set_objective();
        check_stop(); // from here on only memory can fail
        check(target_, TRVsetstrattr(target_, "ModelName", source_.name.c_str()));
        check(target_, TRVsetintattr(target_, "ModelSense", source_.sense));
        check(target_, TRVupdatemodel(target_));
        added_.keep();
    }

  private:
    void add_columns() {
        const std::int32_t nvars = source_.columns.size();
        if (nvars == 0) {
            return;
        }
        const TRVnames names = source_.columns.list();
        added_.expect(TRV_VAR, nvars);
        check(target_, TRVaddvars(target_, nvars, source_.lb.data(), 1, source_.ub.data(), 1, source_.cost.data(), 1,
                                  source_.vtype.data(), 1, &names, &first_));
        added_.add(TRV_VAR, first_, nvars);
    }

    void add_rows() {
        const Placer placer(source_, split_);
        fill_quadratic(placer);
        fill_indicators(placer);
        if (split_.linear.count > 0) {
            TRVrows block;
            check(target_, TRVopenrows(target_, split_.linear.count, placer.terms('L'), &block));
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
        const TRVnames names = split_.linear.names.list();
        std::int32_t row;
        added_.expect(TRV_CONSTR, split_.linear.count);
        check(target_, TRVcommitrows(target_, lower.data(), 1, upper.data(), 1, &names, &row));
        added_.add(TRV_CONSTR, row, split_.linear.count);
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
        const auto nrows = static_cast<std::size_t>(split_.quadratic.count);
        if (nrows == 0) {
            return;
        }
        const auto nterms = static_cast<std::size_t>(placer.terms('Q'));
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
        if (split_.quadratic.count == 0) {
            return;
        }
        const QuadraticRows &q = quadratic_;
        const TRVqrows rows{q.ptr.data(),   q.var.data(),    q.coef.data(), q.qptr.data(),
                            q.first.data(), q.second.data(), q.qcoef.data()};
        const TRVnames names = split_.quadratic.names.list();
        std::int32_t row;
        added_.expect(TRV_QCONSTR, split_.quadratic.count);
        check(target_,
              TRVaddqrows(target_, split_.quadratic.count, &rows, q.sense.data(), 1, q.rhs.data(), 1, &names, &row));
        added_.add(TRV_QCONSTR, row, split_.quadratic.count);
    }

    // ---- general constraints

    struct General {
        std::vector<std::int64_t> argptr{0}, ptr{0}, dataptr{0};
        std::vector<std::int32_t> var;
        std::vector<double> coef, data;
        NameList names;
        std::int32_t count() const { return static_cast<std::int32_t>(argptr.size()) - 1; }

        void add_term(std::int32_t id, double value) {
            var.push_back(id);
            coef.push_back(value);
        }
        void close_argument() { ptr.push_back(static_cast<std::int64_t>(var.size())); }
        void close() {
            argptr.push_back(static_cast<std::int64_t>(ptr.size()) - 1);
            dataptr.push_back(static_cast<std::int64_t>(data.size()));
        }
    };

    void add_general(int type, const General &g, const TRVnames &names) {
        const TRVgens gens{g.count(),     g.argptr.data(), g.ptr.data(),     g.var.data(),
                           g.coef.data(), nullptr,         g.dataptr.data(), g.data.data()};
        std::int32_t id;
        added_.expect(TRV_GENCONSTR, g.count());
        check(target_, TRVaddgens(target_, type, &gens, &names, &id));
        added_.add(TRV_GENCONSTR, id, g.count());
    }

    // Before the linear terms are let go.
    void fill_indicators(const Placer &placer) {
        const auto count = static_cast<std::size_t>(split_.indicator.count);
        if (count == 0) {
            return;
        }
        std::vector<std::size_t> condition(split_.kind.size()); // by row
        for (std::size_t i = 0; i < source_.indicators.size(); ++i) {
            condition[static_cast<std::size_t>(source_.indicators.row[i])] = i;
        }
        const auto nterms = static_cast<std::size_t>(placer.terms('I'));
        std::vector<std::int64_t> ptr(count + 1);
        std::vector<std::int32_t> var(nterms);
        std::vector<double> coef(nterms);
        placer.fill('I', first_, ptr.data(), var.data(), coef.data());
        for (std::size_t row = 0, i = 0; row < condition.size(); ++row) {
            if (split_.kind[row] != 'I') {
                continue;
            }
            indicators_.add_term(first_ + source_.indicators.column[condition[row]], 1);
            indicators_.close_argument();
            for (auto k = static_cast<std::size_t>(ptr[i]); k < static_cast<std::size_t>(ptr[i + 1]); ++k) {
                indicators_.add_term(var[k], coef[k]);
            }
            indicators_.close_argument();
            const double value = source_.indicators.value[condition[row]];
            indicators_.data.insert(indicators_.data.end(), {value, source_.lower[row], source_.upper[row]});
            indicators_.close();
            ++i;
        }
    }

    void add_indicators() {
        if (indicators_.count() > 0) {
            add_general(TRV_GEN_INDICATOR, indicators_, split_.indicator.names.list());
        }
    }

    // In the file's order: one call for each run of sets of one type.
    void add_sets() {
        const std::vector<int> &type = source_.sets.type;
        for (std::size_t begin = 0, end = 0; begin < type.size(); begin = end) {
            while (end < type.size() && type[end] == type[begin]) {
                ++end;
            }
            add_sets(begin, end);
        }
    }

    void add_sets(std::size_t begin, std::size_t end) {
        const OrderedSets &sets = source_.sets;
        General all;
        for (std::size_t s = begin; s < end; ++s) {
            const auto last =
                s + 1 < sets.start.size() ? static_cast<std::size_t>(sets.start[s + 1]) : sets.column.size();
            for (auto k = static_cast<std::size_t>(sets.start[s]); k < last; ++k) {
                all.add_term(first_ + sets.column[k], 1);
                all.close_argument();
                all.data.push_back(sets.weight[k]);
            }
            const std::string_view name = sets.names[static_cast<std::int32_t>(s)];
            const std::int32_t id = TRVidcount(target_, TRV_GENCONSTR) + all.count();
            all.names.add(!name.empty() ? std::string(name) : name_for_unnamed(sets.names, 'G', id));
            all.close();
        }
        add_general(sets.type[begin], all, all.names.list());
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
    General indicators_;
};

} // namespace

void store_model(TRVmodel *target, FileModel source) {
    Storing(target, std::move(source)).run();
}

} // namespace trv
