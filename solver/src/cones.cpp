// cones.cpp: shapes of quadratic rows, their cones, and the multipliers back.
//
// A convex row |Fx|^2 + a'x <= b with t = b - a'x becomes, for a weight w about as large as the square root of t,
//     (t/w + w) / 2  >=  norm of  (t/w - w) / 2, Fx          "parabola", multiplier (z0 + z1) / 2w
// and without linear terms, where b > 0, sqrt(b) >= norm of Fx   "ball", multiplier z0 / (2 sqrt(b))
// A row |Fx|^2 + c <= p y^2 becomes sqrt(p) y >= norm of Fx, sqrt(c), and one with p y z on the right
//     sqrt(p)/2 (y + z)  >=  norm of  sqrt(p)/2 (y - z), Fx, sqrt(c)      both "head", multiplier z0 / 2 s0
#include "cones.h"

#include "buffer.h"
#include "failure.h"

#include <algorithm>
#include <cmath>

namespace store {

namespace {

// A cone is at its tip where its dual is larger than its slack by this. There the row's gradient vanishes but the cone
// still pushes, so no multiplier of the row says what it costs. A dual below `loose` pushes nothing.
constexpr double tip = 1e5;
constexpr double loose = 1e-6;

template <class T> T *given(const std::vector<T> &from) {
    Buffer<T> to;
    moveterms(to.room(from.size() + 1), from.data(), from.size());
    return to.release();
}

// The cones as they grow.
struct Making {
    std::vector<int32_t> qrow, cone{0};
    LinearForms rows;
    std::vector<double> offset, weight;
    std::vector<char> form;

    void closerow(double at) {
        rows.close();
        offset.push_back(at);
    }
    // After forms were appended to rows.
    void offsetszero() { offset.resize(static_cast<size_t>(rows.count()), 0.0); }
    void close(int32_t row, char kind, double factor) {
        qrow.push_back(row);
        cone.push_back(static_cast<int32_t>(rows.count()));
        form.push_back(kind);
        weight.push_back(factor);
    }
    TRVcones finish() const {
        if (rows.index.size() > INT32_MAX)
            fail(TRV_ERROR_SIZE_LIMIT, "the factors of the quadratic rows exceed the limit of 2147483647 entries");
        std::vector<int32_t> start(rows.start.begin(), rows.start.end());
        return {static_cast<int64_t>(qrow.size()),
                rows.count(),
                rows.start.back(),
                given(qrow),
                given(cone),
                given(start),
                given(rows.index),
                given(rows.value),
                given(offset),
                given(form),
                given(weight)};
    }
};

} // namespace

Terms Shapes::terms(int32_t row) const {
    const int32_t from = rows_.qstart[row];
    return {rows_.qstart[row + 1] - from, rows_.qvar1 + from, rows_.qvar2 + from, rows_.qvalue + from};
}

RowShape Shapes::shape(int32_t row) {
    RowShape out;
    const Terms own = terms(row);
    if (own.n == 0)
        return out;
    out.curve = TRV_CURVE_CONVEX;
    const double rhs = sign(row) * data_.qrhs[row];
    out.bounding = !(rhs == INFINITY && data_.qsense[row] != '=');
    if (!out.bounding)
        return out;
    out.curve = TRV_CURVE_NONCONVEX;
    if (data_.qsense[row] == '=')
        return out;
    forms_.take(own, sign(row));
    if (forms_.convex())
        out.curve = TRV_CURVE_CONVEX;
    else if (rhs <= 0.0 && rows_.start[row] == rows_.start[row + 1] && findhead(row, &out))
        out.curve = TRV_CURVE_CONE;
    return out;
}

double Shapes::boundsign(int32_t var) const {
    if (data_.lb[var] >= 0.0)
        return 1.0;
    return data_.ub[var] <= 0.0 ? -1.0 : 0.0;
}

bool Shapes::findhead(int32_t row, RowShape *out) {
    if (!headsquare(out) && !headproduct(row, out))
        return false;
    withouthead(row, *out);
    return forms_.convex();
}

// The only negative square, of a variable in no product.
bool Shapes::headsquare(RowShape *out) const {
    for (size_t i = 0; i < forms_.variables().size(); i++) {
        if (forms_.square(i) >= 0.0)
            continue;
        if (out->head1 >= 0 || forms_.products(i))
            return false;
        out->head1 = out->head2 = forms_.variables()[i];
        out->head = -forms_.square(i);
    }
    if (out->head1 >= 0)
        out->turn1 = out->turn2 = boundsign(out->head1);
    return out->head1 >= 0 && out->turn1 != 0.0;
}

// A product of two variables that appear nowhere else; the rest is convex only if there is no other such product.
bool Shapes::headproduct(int32_t row, RowShape *out) const {
    const std::vector<int32_t> &vars = forms_.variables();
    auto alone = [&](int32_t var) {
        const auto i = static_cast<size_t>(forms_.place(var));
        return forms_.square(i) == 0.0 && forms_.products(i) == 1;
    };
    if (vars.empty())
        return false;
    const Terms own = terms(row);
    for (int64_t k = 0; k < own.n; k++) {
        const int32_t y = own.var1[k], z = own.var2[k];
        if (y == z || !alone(y) || !alone(z))
            continue;
        out->head1 = y;
        out->head2 = z;
        out->turn1 = boundsign(y);
        out->turn2 = boundsign(z);
        out->head = -sign(row) * own.coef[k] * out->turn1 * out->turn2;
        return out->head > 0.0;
    }
    return false;
}

// Leaves the row without its head as the form at hand.
void Shapes::withouthead(int32_t row, const RowShape &shape) {
    const Terms own = terms(row);
    var1_.clear();
    var2_.clear();
    coef_.clear();
    for (int64_t k = 0; k < own.n; k++) {
        const bool same = own.var1[k] == shape.head1 && own.var2[k] == shape.head2;
        if (same || (own.var1[k] == shape.head2 && own.var2[k] == shape.head1))
            continue;
        var1_.push_back(own.var1[k]);
        var2_.push_back(own.var2[k]);
        coef_.push_back(own.coef[k]);
    }
    forms_.take({static_cast<int64_t>(coef_.size()), var1_.data(), var2_.data(), coef_.data()}, sign(row));
}

namespace {

// sqrt(p) y, or sqrt(p)/2 (y +- z) as the rows of a cone, which subtract.
void headrows(const RowShape &shape, Making *made) {
    const double root = std::sqrt(shape.head);
    if (shape.head1 == shape.head2) {
        made->rows.add(shape.head1, -root * shape.turn1);
        made->closerow(0.0);
        return;
    }
    for (const double sign : {1.0, -1.0}) {
        made->rows.add(shape.head1, -0.5 * root * shape.turn1);
        made->rows.add(shape.head2, -0.5 * root * shape.turn2 * sign);
        made->closerow(0.0);
    }
}

// The linear terms of a row and its right-hand side, as those of '<'.
struct Side {
    int64_t n;
    const int32_t *var;
    const double *coef;
    double sign, rhs;

    // How large the side is where the row is tight, as far as its numbers tell.
    double weight() const {
        double most = std::fabs(rhs);
        for (int64_t k = 0; k < n; k++)
            most = std::max(most, std::fabs(coef[k]));
        return most > 0.0 ? std::sqrt(most) : 1.0;
    }
};

// (t/w + w) / 2 and (t/w - w) / 2
void parabolarows(const Side &side, double weight, Making *made) {
    for (const double sign : {1.0, -1.0}) {
        for (int64_t k = 0; k < side.n; k++)
            made->rows.add(side.var[k], 0.5 * side.sign * side.coef[k] / weight);
        made->closerow(0.5 * (side.rhs / weight + sign * weight));
    }
}

void convexcone(int32_t row, const Side &side, Forms &form, Making *made) {
    const bool ball = side.n == 0 && side.rhs >= 0.0;
    const double root = ball ? std::sqrt(side.rhs) : side.weight();
    if (ball)
        made->closerow(root);
    else
        parabolarows(side, root, made);
    form.squares(&made->rows);
    made->offsetszero();
    made->close(row, ball ? 'b' : 'p', root > 0.0 ? 0.5 / root : 0.0);
}

void headcone(int32_t row, const RowShape &shape, double rhs, Forms &form, Making *made) {
    headrows(shape, made);
    form.squares(&made->rows);
    made->offsetszero();
    if (rhs < 0.0)
        made->closerow(std::sqrt(-rhs));
    made->close(row, 'h', 0.5);
}

} // namespace

TRVcones Shapes::cones(int32_t *nonconvex) {
    Making made;
    *nonconvex = -1;
    for (int32_t row = 0; row < rows_.nrows; row++) {
        const RowShape found = shape(row);
        if (found.curve == TRV_CURVE_LINEAR || !found.bounding)
            continue;
        if (found.curve == TRV_CURVE_NONCONVEX) {
            *nonconvex = row;
            return {};
        }
        const int32_t from = rows_.start[row];
        const double rhs = sign(row) * data_.qrhs[row];
        if (found.curve == TRV_CURVE_CONE)
            headcone(row, found, rhs, forms_, &made);
        else
            convexcone(row, {rows_.start[row + 1] - from, rows_.index + from, rows_.value + from, sign(row), rhs},
                       forms_, &made);
    }
    return made.finish();
}

namespace {

// Multiplier of the row as '<', of the minimisation, not negative; NaN where there is none.
double multiplier(char form, double weight, const double *s, const double *z) {
    if (form == 'p')
        return weight * (z[0] + z[1]);
    const double slack = std::max(s[0], 0.0);
    if (z[0] > tip * slack)
        return z[0] > loose ? NAN : 0.0;
    return form == 'b' ? weight * z[0] : weight * z[0] / s[0];
}

} // namespace

void coneduals(const TRVdata &data, const TRVcones &cones, const double *s, const double *z, double *qpi) {
    for (int64_t c = 0; c < cones.ncones; c++) {
        const int32_t row = cones.qrow[c], first = cones.cone[c];
        const double sign = data.qsense[row] == '>' ? 1.0 : -1.0;
        qpi[row] = sign * data.sense * multiplier(cones.form[c], cones.weight[c], s + first, z + first);
    }
}

} // namespace store
