// Nonlinear rows while they are written: linear terms, tapes and constants in arrays that grow (see TRVnlrows).
//
//   Tapes tapes;  TreeTapes trees(tapes);
//   tapes.begin_row();                 trees.add(tree, false);  trees.add(other, true);        tree - other
//   tapes.end_row();
//
// A row is a sum: what sums and differences are made of, from the top of an expression down to what is neither, becomes
// linear terms (variables, alone or with a constant factor), the row's constant, or a summand of its tape. Everything
// below stands in the tape as the expression has it. Nothing recurses.
#pragma once

#include "collaborators/core.h"

#include <cstdint>
#include <vector>

namespace tarvopy {

class Tapes {
  public:
    std::vector<int64_t> ptr{0}, codeptr{0};
    std::vector<int32_t> var, code;
    std::vector<double> coef, constant; // of linear terms; of tapes, in the order in which they are taken
    std::vector<double> constants;      // one a row
    ModelObject *model = nullptr;       // borrowed from variables that are kept alive elsewhere

    int64_t rows() const { return static_cast<int64_t>(constants.size()); }
    void reserve_rows(int64_t rows);

    // ---- a row
    void begin_row(double row_constant = 0.0);
    void linear_term(int32_t id, double factor) {
        var.push_back(id);
        coef.push_back(factor);
    }
    void add_constant(double value) { row_constant_ += value; }
    // After what stands for one summand was written.
    void end_summand(bool negative) {
        if (negative)
            operation(TreeOp::Uminus);
        ++summands_;
    }
    // ValueError where the constants of the row have no finite sum.
    void end_row();

    // ---- entries of the tape
    void variable(int32_t id) { code.push_back(id); }
    void number(double value) {
        code.push_back(TRV_NLOP(TRV_NL_CONSTANT));
        constant.push_back(value);
    }
    void operation(TreeOp op) { code.push_back(TRV_NLOP(static_cast<int32_t>(op))); }
    void sum(int64_t terms);

    // ---- checks
    // The model of all variables; TarvoError for a second one.
    void belongs_to(ModelObject *owner) {
        if (owner == model)
            return;
        if (model)
            fail_second_model();
        model = owner;
    }
    // To be called between entries: a tape writes a subexpression out at each use, so a tree of sixty nodes may mean
    // 2^60 entries. ValueError before the memory is gone.
    void check_length() const {
        if (code.size() - row_code_ > most_entries || var.size() - row_var_ > most_entries)
            fail_length();
    }
    // The same for what is still to be written, where it is known: at once, and not after seconds of writing.
    void check_entries(double count) const {
        if (count > static_cast<double>(most_entries))
            fail_length();
    }

  private:
    static constexpr size_t most_entries = size_t{1} << 27;
    [[noreturn]] static void fail_second_model();
    [[noreturn]] void fail_length() const;
    void reserve_like_first_row();

    int64_t expected_rows_ = 0, summands_ = 0;
    double row_constant_ = 0.0, given_constant_ = 0.0;
    size_t row_code_ = 0, row_var_ = 0;
};

// Writes expression trees.
class TreeTapes {
  public:
    explicit TreeTapes(Tapes &out) : out_(out) {}
    // Adds a tree to the row, or subtracts it.
    void add(const ExprTreeObject *tree, bool negative);
    // The tree as it is.
    void put(const ExprTreeObject *tree);

  private:
    struct Frame {
        const ExprTreeObject *tree;
        Py_ssize_t next;
        bool negative; // of `add` alone
    };
    void enter_sum(const ExprTreeObject *tree, bool negative);
    void enter(const ExprTreeObject *tree);
    void add_summand(const ExprTreeObject *tree, bool negative);
    void put_variable(const ExprTreeObject *tree);
    void check_length();

    // What the caller gave, and where it begins in the code.
    struct Whole {
        const ExprTreeObject *tree = nullptr;
        size_t begin = 0;
        bool counted = false;
    };
    Tapes &out_;
    Whole whole_;
    std::vector<Frame> sums_, open_;
};

// The variable's id; its model becomes that of the tapes.
inline int32_t variable_id(Tapes &out, const ExprTreeObject *leaf) {
    auto *var = reinterpret_cast<const VarObject *>(leaf->slots[0].object);
    out.belongs_to(var->cmodel);
    return var->id;
}

} // namespace tarvopy
