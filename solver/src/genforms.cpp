// genforms.cpp: what each type of general constraint must look like.
#include "gens.h"

#include "failure.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace store {

namespace {

// How many arguments and numbers a type takes; most -1: any number.
struct Form {
    const char *name;
    int64_t least, most;
};
constexpr Form kForms[TRV_GEN_TYPES] = {
    {"MAX", 2, -1}, {"MIN", 2, -1},      {"ABS", 2, 2},   {"AND", 2, -1},  {"OR", 2, -1},
    {"PWL", 2, 2},  {"INDICATOR", 2, 2}, {"SOS1", 1, -1}, {"SOS2", 1, -1},
};

std::string argumentcount(const Gen &gen) {
    const Form &form = kForms[gen.type];
    if (gen.nargs >= form.least && (form.most < 0 || gen.nargs <= form.most))
        return "";
    return "takes " + std::string(form.least == form.most ? "" : "at least ") + std::to_string(form.least) +
           (form.least == 1 ? " argument, not " : " arguments, not ") + std::to_string(gen.nargs);
}

std::string notvariable(const Gen &gen, int64_t arg) {
    return gen.isvariable(arg) ? "" : "argument " + std::to_string(arg) + " is not one variable with coefficient 1";
}

// Whether they are 0 or 1 is for the solve to say where they are variables.
std::string logical(const Gen &gen) {
    for (int64_t a = 0; a < gen.nargs; a++) {
        const bool truth = gen.terms(a) == 0 && (gen.constant[a] == 0.0 || gen.constant[a] == 1.0);
        if (!truth && !gen.isvariable(a))
            return "argument " + std::to_string(a) +
                   " is neither a variable nor the number 0 or 1; add a binary variable for it";
    }
    return "";
}

// each: what the numbers are, "weight".
std::string infinite(const char *each, int64_t n, const double *values) {
    for (int64_t k = 0; k < n; k++)
        if (!isfinite(values[k]))
            return std::string(each) + " " + std::to_string(k) + " is " + number(values[k]);
    return "";
}

std::string points(const Gen &gen) {
    const int64_t n = gen.ndata / 2;
    const double *x = gen.data;
    if (gen.ndata % 2 || n < 2)
        return "takes at least two points, all x and then all y, not " + std::to_string(gen.ndata) + " numbers";
    if (std::string why = infinite("the x of point", n, x); !why.empty())
        return why;
    if (std::string why = infinite("the y of point", n, x + n); !why.empty())
        return why;
    for (int64_t i = 1; i < n; i++) {
        if (x[i] < x[i - 1])
            return "the x of its points decrease from " + number(x[i - 1]) + " to " + number(x[i]);
        if (x[i] == x[i - 1] && (i == 1 || i == n - 1))
            return "its first two or last two points have the same x, " + number(x[i]) +
                   ": a jump needs a piece on either side";
        if (i > 1 && x[i] == x[i - 2])
            return "three of its points have the same x, " + number(x[i]) + "; a jump has two";
    }
    return "";
}

std::string indicator(const Gen &gen) {
    if (gen.ndata != 3)
        return "takes 3 numbers, not " + std::to_string(gen.ndata);
    if (gen.data[0] != 0.0 && gen.data[0] != 1.0)
        return "the value that its binary variable is to have is " + number(gen.data[0]) + ", not 0 or 1";
    if (std::isnan(gen.data[1]) || gen.data[1] >= TRV_INFINITY)
        return "its lower side is " + number(gen.data[1]);
    if (std::isnan(gen.data[2]) || gen.data[2] <= -TRV_INFINITY)
        return "its upper side is " + number(gen.data[2]);
    return notvariable(gen, 0);
}

std::string set(const Registry &known, const Gen &gen) {
    if (gen.ndata != gen.nargs)
        return "takes one weight for each of its " + std::to_string(gen.nargs) + " variables, not " +
               std::to_string(gen.ndata);
    std::vector<int32_t> variables;
    for (int64_t a = 0; a < gen.nargs; a++) {
        if (!gen.isvariable(a))
            return notvariable(gen, a);
        variables.push_back(gen.variable(a));
    }
    if (std::string why = infinite("weight", gen.ndata, gen.data); !why.empty())
        return why;
    std::vector<double> weights(gen.data, gen.data + gen.ndata);
    std::sort(weights.begin(), weights.end());
    const auto twice = std::adjacent_find(weights.begin(), weights.end());
    if (twice != weights.end())
        return "two of its weights are " + number(*twice);
    std::sort(variables.begin(), variables.end());
    const auto same = std::adjacent_find(variables.begin(), variables.end());
    return same == variables.end() ? "" : known.called(*same) + " stands in it more than once";
}

std::string form(const Registry &variables, const Gen &gen) {
    switch (gen.type) {
    case TRV_GEN_PWL:
        return points(gen);
    case TRV_GEN_INDICATOR:
        return indicator(gen);
    case TRV_GEN_SOS1:
    case TRV_GEN_SOS2:
        return set(variables, gen);
    default:
        if (gen.ndata)
            return "takes no numbers, not " + std::to_string(gen.ndata);
        return gen.type == TRV_GEN_AND || gen.type == TRV_GEN_OR ? logical(gen) : "";
    }
}

} // namespace

const char *gentypename(int type) {
    return kForms[type].name;
}

std::string genrefusal(const Registry &variables, const Gen &gen) {
    std::string why = argumentcount(gen);
    return why.empty() ? form(variables, gen) : why;
}

} // namespace store
