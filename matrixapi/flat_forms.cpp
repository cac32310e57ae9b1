// Kernels over whole forms: broadcasting, sums, selections, reductions, joins.
#include "flat.h"

namespace flat {

// ---- constants -----------------------------------------------------------------------------------------------------

namespace {

template <class Value> Constant filled(int64_t size, Value value) {
    Constant constant;
    constant.values = Buffer<double>(size);
    double *to = constant.values.write();
    for (int64_t i = 0; i < size; ++i)
        to[i] = value(i);
    return constant;
}

Constant sum(const Constant &a, const Constant &b, double factor, int64_t size) {
    if (a.values.empty() && b.values.empty())
        return {a.uniform + factor * b.uniform, {}};
    return filled(size, [&](int64_t i) { return a[i] + factor * b[i]; });
}

Constant gathered(const Constant &constant, const int64_t *map, int64_t size) {
    if (constant.values.empty())
        return constant;
    return filled(size, [&](int64_t i) { return constant.values[map[i]]; });
}

// Neighbouring groups of `group` constants added up, one after the other.
Constant grouped(const Constant &constant, int64_t groups, int64_t group) {
    return filled(groups, [&](int64_t g) {
        double total = 0.0;
        for (int64_t i = g * group; i < (g + 1) * group; ++i)
            total += constant[i];
        return total;
    });
}

} // namespace

void add_constant(Form &form, double value) {
    if (form.constant.values.empty())
        form.constant.uniform += value;
    else
        form.constant = filled(form.size, [&](int64_t i) { return form.constant[i] + value; });
}

void add_constant(Form &form, const double *values) {
    form.constant = filled(form.size, [&](int64_t i) { return form.constant[i] + values[i]; });
}

// ---- element by element --------------------------------------------------------------------------------------------

void add(Form &form, const Form &other, double factor) {
    std::vector<Summand> more;
    more.reserve(other.summands.size());
    for (const Summand &summand : other.summands)
        more.push_back(factor == 1.0 ? summand : scaled(summand, factor));
    Constant constant = sum(form.constant, other.constant, factor, form.size);
    form.summands.insert(form.summands.end(), more.begin(), more.end());
    form.constant = std::move(constant);
}

Form scaled(const Form &form, double factor) {
    Form result{form.shape, form.size, {}, {}};
    if (form.constant.values.empty())
        result.constant.uniform = form.constant.uniform * factor;
    else
        result.constant = filled(form.size, [&](int64_t i) { return form.constant[i] * factor; });
    for (const Summand &summand : form.summands)
        result.summands.push_back(scaled(summand, factor));
    return result;
}

Form scaled_rows(const Form &form, const double *factors) {
    Form result{form.shape, form.size, {}, {}};
    if (!form.constant.values.empty() || form.constant.uniform != 0.0)
        result.constant = filled(form.size, [&](int64_t i) { return form.constant[i] * factors[i]; });
    for (const Summand &summand : form.summands)
        result.summands.push_back(scaled_rows(summand, factors));
    return result;
}

// ---- selections ----------------------------------------------------------------------------------------------------

namespace {

// Which old row each new row is, where that is a matter of steps: broadcasting and moving axes. No list of rows is made
// for it.
struct Steps {
    Shape shape; // of the result
    std::vector<int64_t> step;
};

// Calls visit(new row, old row) in C order of the result.
template <class Visit> void walk(const Steps &steps, Visit visit) {
    size_t outer = steps.shape.empty() ? 0 : steps.shape.size() - 1;
    int64_t inner = steps.shape.empty() ? 1 : steps.shape.back(), step = steps.shape.empty() ? 0 : steps.step.back();
    int64_t size = size_of(steps.shape), old = 0;
    Shape at(outer, 0);
    for (int64_t i = 0; i < size;) {
        for (int64_t j = 0; j < inner; ++j, ++i)
            visit(i, old + j * step);
        for (size_t d = outer; d-- > 0;) {
            old += steps.step[d];
            if (++at[d] < steps.shape[d])
                break;
            old -= steps.step[d] * steps.shape[d];
            at[d] = 0;
        }
    }
}

std::vector<int64_t> c_steps(const Shape &shape) {
    std::vector<int64_t> steps(shape.size());
    int64_t step = 1;
    for (size_t d = shape.size(); d-- > 0;) {
        steps[d] = step;
        step *= shape[d];
    }
    return steps;
}

Steps broadcast_steps(const Shape &from, const Shape &to) {
    Steps steps{to, std::vector<int64_t>(to.size(), 0)};
    std::vector<int64_t> own = c_steps(from);
    size_t ahead = to.size() - from.size();
    for (size_t d = 0; d < from.size(); ++d)
        if (from[d] != 1)
            steps.step[ahead + d] = own[d];
    return steps;
}

std::vector<int64_t> listed(const Steps &steps) {
    std::vector<int64_t> map(static_cast<size_t>(size_of(steps.shape)));
    walk(steps, [&](int64_t i, int64_t old) { map[static_cast<size_t>(i)] = old; });
    return map;
}

Constant gathered(const Constant &constant, const Steps &steps) {
    if (constant.values.empty())
        return constant;
    Constant result;
    result.values = Buffer<double>(size_of(steps.shape));
    walk(steps,
         [to = result.values.write(), from = constant.values.data()](int64_t i, int64_t old) { to[i] = from[old]; });
    return result;
}

// One term a row: what variables and their scaled arrays are.
Summand gathered_single(const Summand &summand, const Steps &steps) {
    Summand result = summand;
    result.nrows = size_of(steps.shape);
    result.cols = Buffer<int32_t>(result.nrows);
    int32_t *cols = result.cols.write();
    if (summand.cols.empty() || summand.cols.counts())
        walk(steps, [cols, first = summand.cols.empty() ? 0 : summand.cols.counting()](int64_t i, int64_t old) {
            cols[i] = first + static_cast<int32_t>(old);
        });
    else
        walk(steps, [cols, from = summand.cols.data()](int64_t i, int64_t old) { cols[i] = from[old]; });
    if (summand.coef.empty())
        return result;
    result.coef = Buffer<double>(result.nrows);
    walk(steps, [to = result.coef.write(), from = summand.coef.data()](int64_t i, int64_t old) { to[i] = from[old]; });
    return result;
}

Form gathered(const Form &form, const Steps &steps, const Shape &shape) {
    Form result{shape, size_of(shape), {}, {}};
    result.constant = gathered(form.constant, steps);
    std::vector<int64_t> map; // made for the first summand that asks for it
    for (const Summand &summand : form.summands) {
        if (summand.ptr.empty() && summand.width == 1) {
            result.summands.push_back(gathered_single(summand, steps));
            continue;
        }
        if (map.empty())
            map = listed(steps);
        result.summands.push_back(gathered(summand, map.data(), result.size));
    }
    return result;
}

} // namespace

std::vector<int64_t> broadcast_map(const Shape &from, const Shape &to) {
    if (size_of(from) == size_of(to))
        return {};
    return listed(broadcast_steps(from, to));
}

void broadcast_values(const double *values, const Shape &from, const Shape &to, double *out) {
    walk(broadcast_steps(from, to), [=](int64_t i, int64_t old) { out[i] = values[old]; });
}

Form gathered(const Form &form, const int64_t *map, const Shape &shape) {
    Form result{shape, size_of(shape), {}, {}};
    result.constant = gathered(form.constant, map, result.size);
    for (const Summand &summand : form.summands)
        result.summands.push_back(gathered(summand, map, result.size));
    return result;
}

Form broadcast(const Form &form, const Shape &to) {
    if (size_of(to) != form.size)
        return gathered(form, broadcast_steps(form.shape, to), to);
    Form result = form;
    result.shape = to;
    return result;
}

// ---- reductions ----------------------------------------------------------------------------------------------------

namespace {

// Rows g * group .. of one summand become row g: a matter of pointers alone.
Summand regrouped(const Summand &summand, int64_t groups, int64_t group) {
    Summand result = summand;
    result.nrows = groups;
    if (summand.ptr.empty()) {
        result.width = summand.width * group;
        return result;
    }
    result.ptr = Buffer<int64_t>(groups + 1);
    int64_t *ptr = result.ptr.write();
    for (int64_t g = 0; g <= groups; ++g)
        ptr[g] = summand.ptr[g * group];
    return result;
}

} // namespace

Form summed(const Form &form, std::span<const int> axes) {
    Shape kept, inner;
    std::vector<int64_t> steps = c_steps(form.shape), kept_steps, inner_steps;
    bool trailing = true; // the summed axes stand behind the kept ones: rows are in order already
    for (size_t d = 0; d < form.shape.size(); ++d) {
        bool keep = axes[d] >= 0;
        trailing = trailing && !(keep && !inner.empty() && form.shape[d] > 1);
        (keep ? kept : inner).push_back(form.shape[d]);
        (keep ? kept_steps : inner_steps).push_back(steps[d]);
    }
    Form result{kept, size_of(kept), {}, {}};
    int64_t group = size_of(inner);
    if (result.size == 0)
        return result;
    Form ordered = form;
    if (!trailing && form.size > 0) {
        kept.insert(kept.end(), inner.begin(), inner.end());
        kept_steps.insert(kept_steps.end(), inner_steps.begin(), inner_steps.end());
        ordered = gathered(form, Steps{kept, kept_steps}, form.shape);
    }
    if (ordered.constant.values.empty() && ordered.constant.uniform == 0.0)
        result.constant.uniform = 0.0;
    else
        result.constant = grouped(ordered.constant, result.size, group);
    if (ordered.summands.empty())
        return result;
    // An element is added as a whole, so several summands are interleaved before groups are made of their rows.
    Summand one = ordered.summands.size() == 1 ? ordered.summands[0] : joined(ordered.summands, form.size);
    result.summands.push_back(regrouped(one, result.size, group));
    return result;
}

// ---- joins ---------------------------------------------------------------------------------------------------------

Form concatenated(std::span<const Form> forms, const Shape &shape) {
    Form result{shape, size_of(shape), {}, {}};
    int64_t total = 0;
    for (const Form &form : forms)
        total += form.nnz();
    Summand rows;
    rows.nrows = result.size;
    rows.ptr = Buffer<int64_t>(result.size + 1);
    rows.cols = Buffer<int32_t>(total);
    rows.coef = Buffer<double>(total);
    result.constant.values = Buffer<double>(result.size);
    int64_t row = 0, k = 0;
    rows.ptr.write()[0] = 0;
    for (const Form &form : forms) {
        int64_t *ptr = rows.ptr.write() + row;
        write_rows(form.summands, form.size, ptr, rows.cols.write() + k, rows.coef.write() + k);
        for (int64_t i = 0; i <= form.size; ++i)
            ptr[i] += k;
        for (int64_t i = 0; i < form.size; ++i)
            result.constant.values.write()[row + i] = form.constant[i];
        row += form.size;
        k += form.nnz();
    }
    if (total > 0)
        result.summands.push_back(std::move(rows));
    return result;
}

} // namespace flat
