// The infix text of an expression tree, with Python's operators and precedence and no brackets beyond those.
//
//   Plus(x, Multiply(-2.0, Square(y)))      x - 2.0 * y ** 2
//   Divide(x, Multiply(y, z))               x / (y * z)
//   Uminus(Pow(x, Pow(y, z)))               -x ** y ** z
//
// Sums and products count as associative, so a + (b - c) prints as a + b - c. A term that begins with a minus takes the
// sign of the sum over: a + -b prints as a - b.
//
// A stack of pieces that are still to be written takes the place of recursion. The text of shared nodes repeats, and so
// may be exponentially longer than the tree: beyond 64 MB it is refused.
#include "exprtree.h"

#include "scalars.h"
#include "term_lists.h"

#include <cmath>

namespace tarvopy::core {

namespace {

constexpr size_t longest_text = 64 << 20;

// How tightly the outermost operation of a text binds; an operand in a place that binds tighter needs brackets.
enum Level { Sum = 1, Product, Sign, Power, Atom };

bool is_negative_constant(const ExprTreeObject *node) {
    return node->op == TreeOp::Constant && std::signbit(node->slots[0].number);
}

bool is_product(const ExprTreeObject *node) {
    return node->op == TreeOp::Multiply || node->op == TreeOp::Divide;
}

Level level_of(const ExprTreeObject *node) {
    switch (node->op) {
    case TreeOp::Plus:
    case TreeOp::Minus:
        return Sum;
    case TreeOp::Multiply:
    case TreeOp::Divide:
        return Product;
    case TreeOp::Uminus: // -a * b is a product to its surroundings
        return is_product(node->child(0)) ? Product : Sign;
    case TreeOp::Constant:
        return is_negative_constant(node) ? Sign : Atom;
    case TreeOp::Pow:
    case TreeOp::Square:
        return Power;
    default:
        return Atom;
    }
}

bool begins_with_minus(const ExprTreeObject *node) {
    return is_negative_constant(node) || node->op == TreeOp::Uminus ||
           (is_product(node) && is_negative_constant(node->child(0)));
}

class Writer {
  public:
    std::string write(const ExprTreeObject *root) {
        push(root, Sum);
        while (!pieces_.empty()) {
            Piece piece = pieces_.back();
            pieces_.pop_back();
            if (piece.literal)
                text_ += piece.literal;
            else
                write_node(piece);
            if (text_.size() > longest_text)
                fail(PyExc_OverflowError, "the text of the expression has more than %zu bytes", longest_text);
        }
        return std::move(text_);
    }

  private:
    struct Piece {
        const ExprTreeObject *node;
        const char *literal; // or a text as it is
        Level place;
        bool unsigned_; // the sum has written the minus that the node begins with
    };

    void push(const ExprTreeObject *node, Level place, bool without_sign = false) {
        pieces_.push_back({node, nullptr, place, without_sign});
    }
    void push(const char *literal) { pieces_.push_back({nullptr, literal, Atom, false}); }

    void write_node(const Piece &piece) {
        if (piece.unsigned_)
            return write_unsigned(piece);
        bool brackets = level_of(piece.node) < piece.place;
        if (brackets) {
            text_ += '(';
            push(")");
        }
        write_contents(piece.node);
    }

    // A node that begins with a minus, without it.
    void write_unsigned(const Piece &piece) {
        if (piece.node->op == TreeOp::Uminus)
            push(piece.node->child(0), piece.place);
        else if (piece.node->op == TreeOp::Constant)
            text_ += number_text(std::fabs(piece.node->slots[0].number));
        else
            write_product(piece.node, true);
    }

    void write_contents(const ExprTreeObject *node) {
        switch (node->op) {
        case TreeOp::Constant:
            text_ += number_text(node->slots[0].number);
            return;
        case TreeOp::Variable:
            text_ += label_of(node->slots[0].object).text;
            return;
        case TreeOp::Plus:
        case TreeOp::Minus:
            return write_sum(node);
        case TreeOp::Multiply:
        case TreeOp::Divide:
            return write_product(node, false);
        case TreeOp::Uminus:
            text_ += '-';
            // Told from its own child alone, -(-a * b) binds as a sign does: no walk down a tower of them.
            return push(node->child(0), node->child(0)->op == TreeOp::Uminus ? Sign : Product);
        case TreeOp::Square:
            push(" ** 2");
            return push(node->child(0), Atom);
        case TreeOp::Pow:
            push(node->child(1), Sign);
            push(" ** ");
            return push(node->child(0), Atom);
        default:
            text_ += info_of(node->op).name;
            text_ += '(';
            push(")");
            return push(node->child(0), Sum);
        }
    }

    // Pieces are pushed last first.
    void write_sum(const ExprTreeObject *node) {
        for (Py_ssize_t i = node->child_count(); --i > 0;) {
            const ExprTreeObject *term = node->child(i);
            bool takes_sign = begins_with_minus(term);
            bool minus = (node->op == TreeOp::Minus) != takes_sign;
            push(term, minus ? Product : Sum, takes_sign);
            push(minus ? " - " : " + ");
        }
        push(node->child(0), Sum);
    }

    void write_product(const ExprTreeObject *node, bool without_sign) {
        bool divides = node->op == TreeOp::Divide;
        push(node->child(1), divides ? Sign : Product);
        push(divides ? " / " : " * ");
        push(node->child(0), Product, without_sign);
    }

    std::vector<Piece> pieces_;
    std::string text_;
};

} // namespace

std::string infix_text(const ExprTreeObject *root) {
    return Writer().write(root);
}

} // namespace tarvopy::core
