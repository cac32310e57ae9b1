// The order in which a .nl file wants its variables, and what the model lacks there.
//
//     NlOrder order(data, nonlinear);        nonlinear[j]: variable j stands in a nonlinear row
//     order.position[3]                      which variable stands fourth in the file, -1 for one that is no model's
//     order.place[j]                         the other way round
//
// Nonlinear variables come first (all of them nonlinear in rows only, for a nonlinear objective is a row here), then
// the linear ones; in each group the integral ones come last. Added are a variable for a nonlinear objective, and for
// each semi-continuous variable that needs one a binary variable that says whether it is on.
#ifndef TARVO_NL_ORDER_H
#define TARVO_NL_ORDER_H

#include <cstdint>
#include <vector>

#include "tarvo_engine.h"

namespace trv {

struct NlOrder {
    NlOrder(const TRVdata &data, const std::vector<char> &nonlinear, bool with_objective);

    std::int32_t size() const { return static_cast<std::int32_t>(position.size()); }
    std::int32_t nonlinear() const { return nonlinear_continuous + nonlinear_integral; }

    std::int32_t nonlinear_continuous = 0, nonlinear_integral = 0; // the file's counts of each group
    std::int32_t linear_continuous = 0, binary = 0, integral = 0;
    std::vector<std::int32_t> position, place;
    std::vector<std::int32_t> semi;    // the semi-continuous variables with a binary one
    std::int32_t first_semi = -1;      // place of the first of these binary variables, the others follow
    std::int32_t objective_place = -1; // of the variable for the objective, -1 where it is linear
};

// Zero outside of its bounds: with 0 inside of them a semi-continuous variable is an ordinary one.
bool is_semicontinuous(const TRVdata &data, std::int32_t j);

} // namespace trv
#endif
