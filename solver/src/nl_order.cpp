// The order of variables in a .nl file (see nl_order.h).
#include "nl_order.h"

#include <array>

namespace trv {
namespace {

enum Group { kNonlinearContinuous, kNonlinearIntegral, kLinearContinuous, kBinary, kIntegral, kGroups };

Group group_of(const TRVdata &data, std::int32_t j, bool nonlinear) {
    const char type = data.vtype[j];
    if (type != 'I' && type != 'B') {
        return nonlinear ? kNonlinearContinuous : kLinearContinuous;
    }
    return nonlinear ? kNonlinearIntegral : type == 'B' ? kBinary : kIntegral;
}

} // namespace

bool is_semicontinuous(const TRVdata &data, std::int32_t j) {
    return data.vtype[j] == 'S' && !(data.lb[j] <= 0 && data.ub[j] >= 0);
}

NlOrder::NlOrder(const TRVdata &data, const std::vector<char> &nonlinear, bool with_objective)
    : place(static_cast<std::size_t>(data.nvars)) {
    std::array<std::int32_t, kGroups> count{};
    for (std::int32_t j = 0; j < data.nvars; ++j) {
        ++count[group_of(data, j, nonlinear[static_cast<std::size_t>(j)] != 0)];
        if (is_semicontinuous(data, j)) {
            semi.push_back(j);
        }
    }
    const std::array<std::int32_t, kGroups> own = count;
    count[kLinearContinuous] += with_objective ? 1 : 0;
    count[kBinary] += static_cast<std::int32_t>(semi.size());

    std::array<std::int32_t, kGroups> next{};
    for (std::size_t g = 1; g < kGroups; ++g) {
        next[g] = next[g - 1] + count[g - 1];
    }
    objective_place = with_objective ? next[kLinearContinuous] + own[kLinearContinuous] : -1;
    first_semi = next[kBinary] + own[kBinary];
    position.assign(static_cast<std::size_t>(next[kIntegral] + count[kIntegral]), -1);
    for (std::int32_t j = 0; j < data.nvars; ++j) {
        const std::int32_t at = next[group_of(data, j, nonlinear[static_cast<std::size_t>(j)] != 0)]++;
        place[static_cast<std::size_t>(j)] = at;
        position[static_cast<std::size_t>(at)] = j;
    }
    nonlinear_continuous = count[kNonlinearContinuous];
    nonlinear_integral = count[kNonlinearIntegral];
    linear_continuous = count[kLinearContinuous];
    binary = count[kBinary];
    integral = count[kIntegral];
}

} // namespace trv
