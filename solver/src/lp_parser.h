// One reading of an LP file: tokens in, FileModel out.
//
//     LpParser parser(path);
//     parser.run();                     throws FileError, LineError
//     FileModel model = parser.take();
//
// lp_parser.cpp drives the sections and has those of bounds and types, lp_rows.cpp has expressions and rows,
// lp_general.cpp indicators and sets.
//
//     expression   sums of  3 x   x   3 * x   7   and brackets  [ 2 x ^2 + 3 x * y ]  or  [ ... ] / 2
//     row          name: expression <= 5
//                  name: -5 <= expression <= 5      (an end of line is nothing but a blank)
//     indicator    name: b = 1 -> row
//     set          name: S1:: x:1 y:2
//     bound        x >= 1    -inf <= x <= 5    x = 3    x free
#ifndef TARVO_LP_PARSER_H
#define TARVO_LP_PARSER_H

#include "lp_lexer.h"
#include "lp_model.h"

namespace trv {

class LpParser {
  public:
    explicit LpParser(const std::string &path) : lexer_(path) {}
    void run();
    std::int64_t line() const { return lexer_.line(); }
    FileModel take() { return std::move(model_); }

  private:
    // What an expression holds besides its terms, which go into the model at once.
    struct Rest {
        double constant = 0;
        bool has_constant = false, has_terms = false, has_bracket = false;
        bool is_number() const { return !has_terms && !has_bracket; }
        void add(double value);
    };

    [[noreturn]] void unexpected(const std::string &wanted);

    // Expressions.
    enum class Target { objective, row };
    Rest expression(Target target);
    void term(Target target, double sign, Rest &rest);
    void linear(Target target, double coefficient);
    void bracket(Target target, double sign);
    void product(QuadTerms &terms, double sign);
    bool take_signs(double &sign);
    void want_finite(double coefficient, std::string_view variable) const;
    template <class Names>
    void want_finite_sums(const std::vector<double> &values, std::size_t begin, Names names) const;
    void want_finite_products(const QuadTerms &terms, std::size_t begin) const;
    std::int32_t enter_column();

    // Rows.
    void objective();
    void row();
    void enter_row();
    struct Sides {
        double lower, upper;
        char type; // as in FileModel
    };
    static Sides sides_of(LpKind op, double value);
    Sides sides_around(double left, LpKind op, Rest &middle);
    void add_sides(Sides sides, const Rest &middle);
    Sides sides(const Rest &left, Rest &middle);
    [[noreturn]] void fail_row(const std::string &what, int code) const;
    LpKind sense();
    bool at_sense();
    double number(const char *wanted);
    std::string row_text() const;

    // Indicators and sets.
    void condition(std::size_t entries, const Rest &left, LpKind op, double value);
    void sets();
    void open_set(std::string_view name, std::string_view type);
    void close_set();

    // Bounds and types.
    void bound();
    void apply_bound(std::int32_t column, LpKind sense, double value);
    void set_bound(std::vector<double> &side, unsigned char bit, std::int32_t column, double value);
    void typed_column(char vtype);
    std::int32_t known_column();
    void close_columns();

    LpLexer lexer_;
    FileModel model_;
    std::vector<unsigned char> given_; // of each column: bits of the bounds that the file gives
};

} // namespace trv
#endif
