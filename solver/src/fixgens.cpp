#include "fixgens.h"

#include "gencheck.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

namespace store {

namespace {

constexpr int32_t kNobody = -1;

class FixedRows {
  public:
    explicit FixedRows(const TRVmodel &from) : ids_(from.columns.ids), x_(from.solution.x().data()) {}

    void add(const Gen &gen) {
        switch (gen.type) {
        case TRV_GEN_MAX:
        case TRV_GEN_MIN:
            return addextreme(gen, gen.type == TRV_GEN_MAX ? 1.0 : -1.0);
        case TRV_GEN_ABS:
            return addabs(gen);
        case TRV_GEN_PWL:
            return addpiece(gen);
        case TRV_GEN_INDICATOR:
            if (std::round(value(gen, 0)) == gen.data[0])
                row(gen, 0.0, kNobody, 1.0, 1, gen.data[1], gen.data[2]);
            return;
        case TRV_GEN_SOS1:
        case TRV_GEN_SOS2:
            return addzeros(gen);
        default:
            return;
        }
    }

    void commit(TRVmodel &to) {
        const auto nrows = static_cast<int64_t>(lower_.size());
        if (nrows == 0)
            return;
        TRVrows block = to.rows.open(nrows, static_cast<int64_t>(var_.size()));
        std::copy(ptr_.begin(), ptr_.end(), block.ptr);
        std::copy(var_.begin(), var_.end(), block.var);
        std::copy(coef_.begin(), coef_.end(), block.coef);
        to.rows.commit(to.columns, lower_.data(), 1, upper_.data(), 1, nullptr);
    }

  private:
    double value(const Gen &gen, int64_t arg) const {
        double sum = gen.constant[arg];
        for (int64_t k = gen.ptr[arg]; k < gen.ptr[arg + 1]; k++)
            sum += gen.coef[k] * x_[ids_.slot(gen.var[k])];
        return sum;
    }

    double append(const Gen &gen, double factor, int64_t arg) {
        if (arg == kNobody)
            return 0.0;
        for (int64_t k = gen.ptr[arg]; k < gen.ptr[arg + 1]; k++) {
            var_.push_back(ids_.slot(gen.var[k]));
            coef_.push_back(factor * gen.coef[k]);
        }
        return factor * gen.constant[arg];
    }
    // lower <= f * argument a + g * argument b <= upper; what is between numbers alone is not asked.
    void row(const Gen &gen, double f, int64_t a, double g, int64_t b, double lower, double upper) {
        const double constant = append(gen, f, a) + append(gen, g, b);
        if (static_cast<int64_t>(var_.size()) == ptr_.back())
            return;
        ptr_.push_back(static_cast<int64_t>(var_.size()));
        lower_.push_back(lower - constant);
        upper_.push_back(upper - constant);
    }

    void addextreme(const Gen &gen, double sign) {
        int64_t best = 1;
        for (int64_t a = 2; a < gen.nargs; a++)
            if (sign * value(gen, a) > sign * value(gen, best))
                best = a;
        row(gen, 1.0, 0, -1.0, best, 0.0, 0.0);
        for (int64_t a = 1; a < gen.nargs; a++)
            if (a != best)
                row(gen, sign, best, -sign, a, 0.0, INFINITY);
    }

    void addabs(const Gen &gen) {
        const double sign = value(gen, 1) < 0.0 ? -1.0 : 1.0;
        row(gen, 1.0, 0, -sign, 1, 0.0, 0.0);
        row(gen, 0.0, kNobody, sign, 1, 0.0, INFINITY);
    }

    void addpiece(const Gen &gen) {
        const int64_t n = gen.ndata / 2, i = nearestpiece(gen.data, gen.data + n, n, value(gen, 1), value(gen, 0));
        const double *x = gen.data, *y = gen.data + n;
        const double slope = (y[i] - y[i - 1]) / (x[i] - x[i - 1]);
        if (!std::isfinite(slope)) {
            row(gen, 0.0, kNobody, 1.0, 1, x[i], x[i]);
            row(gen, 0.0, kNobody, 1.0, 0, std::min(y[i - 1], y[i]), std::max(y[i - 1], y[i]));
            return;
        }
        const double at = y[i - 1] - slope * x[i - 1];
        row(gen, 1.0, 0, -slope, 1, at, at);
        row(gen, 0.0, kNobody, 1.0, 1, i == 1 ? -INFINITY : x[i - 1], i == n - 1 ? INFINITY : x[i]);
    }

    void addzeros(const Gen &gen) {
        std::vector<int64_t> order(gen.nargs);
        std::iota(order.begin(), order.end(), 0);
        std::sort(order.begin(), order.end(), [&](int64_t a, int64_t b) { return gen.data[a] < gen.data[b]; });
        const int64_t stay = std::min<int64_t>(gen.type == TRV_GEN_SOS1 ? 1 : 2, gen.nargs);
        int64_t first = 0;
        double most = -1.0;
        for (int64_t i = 0; i + stay <= gen.nargs; i++) {
            double sum = 0.0;
            for (int64_t k = i; k < i + stay; k++)
                sum += std::fabs(value(gen, order[k]));
            if (sum > most) {
                most = sum;
                first = i;
            }
        }
        for (int64_t i = 0; i < gen.nargs; i++)
            if (i < first || i >= first + stay)
                row(gen, 0.0, kNobody, 1.0, order[i], 0.0, 0.0);
    }

    const Registry &ids_;
    const double *x_;
    std::vector<int64_t> ptr_{0};
    std::vector<int32_t> var_;
    std::vector<double> coef_, lower_, upper_;
};

} // namespace

void fixgens(const TRVmodel &from, TRVmodel &to) {
    FixedRows rows(from);
    from.gens.each([&](int32_t, const Gen &gen) { rows.add(gen); });
    rows.commit(to);
    to.update();
}

} // namespace store
