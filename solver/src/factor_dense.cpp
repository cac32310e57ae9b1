// factor_dense.cpp: blocked LDL' without pivoting. Panels of 64 columns are eliminated row by row; what they do to the
// rest goes in tiles that stay in the cache, four columns of the panel at a time.
#include "factor_dense.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace store {

namespace {

constexpr int64_t panelwidth = 64;
constexpr int64_t tilewidth = 256;

struct Panel {
    double *a;
    int64_t m, from, to;
    double *row(int64_t i) const { return a + i * m; }
};

// A column whose pivot counts as zero: what stands below should be zero as well, and becomes so.
void dropcolumn(const Panel &panel, int64_t j, double *dropped) {
    for (int64_t i = j + 1; i < panel.m; i++) {
        *dropped = std::max(*dropped, std::fabs(panel.row(i)[j]));
        panel.row(i)[j] = 0.0;
    }
}

// Column j becomes L, and the columns of the panel behind it are updated.
void eliminatecolumn(const Panel &panel, int64_t j, double pivot) {
    double above[panelwidth]; // what stood in column j, in the rows of the panel
    for (int64_t c = j + 1; c < panel.to; c++)
        above[c - panel.from] = panel.row(c)[j];
    for (int64_t i = j + 1; i < panel.m; i++) {
        double *row = panel.row(i);
        const double factor = row[j] / pivot;
        row[j] = factor;
        for (int64_t c = j + 1; c < std::min(panel.to, i + 1); c++)
            row[c] -= factor * above[c - panel.from];
    }
}

bool eliminatepanel(const Panel &panel, const PivotRule &rule, double *pivot, double *dropped) {
    for (int64_t j = panel.from; j < panel.to; j++) {
        if (!rule.accept(panel.row(j)[j], &pivot[j], dropped))
            return false;
        if (pivot[j] == 0.0)
            dropcolumn(panel, j, dropped);
        else
            eliminatecolumn(panel, j, pivot[j]);
    }
    return true;
}

// row[0 .. n) -= sum of four rows of lt.
void subtractfour(double *__restrict row, int64_t n, const double *weight, const double *lt, int64_t step) {
    const double w0 = weight[0], w1 = weight[1], w2 = weight[2], w3 = weight[3];
    const double *__restrict l0 = lt, *__restrict l1 = lt + step, *__restrict l2 = lt + 2 * step,
                             *__restrict l3 = lt + 3 * step;
    for (int64_t j = 0; j < n; j++)
        row[j] -= w0 * l0[j] + w1 * l1[j] + w2 * l2[j] + w3 * l3[j];
}

// The rows behind the panel minus L D L' of the panel. lt: room for panelwidth * tilewidth.
void updaterest(const Panel &panel, const double *pivot, double *lt) {
    for (int64_t tile = panel.to; tile < panel.m; tile += tilewidth) {
        const int64_t end = std::min(tile + tilewidth, panel.m);
        for (int64_t k = 0; k < panelwidth; k++)
            for (int64_t j = tile; j < end; j++)
                lt[k * tilewidth + j - tile] = panel.row(j)[panel.from + k];
        for (int64_t i = tile; i < panel.m; i++) {
            double weight[panelwidth];
            for (int64_t k = 0; k < panelwidth; k++)
                weight[k] = panel.row(i)[panel.from + k] * pivot[panel.from + k];
            for (int64_t k = 0; k < panelwidth; k += 4)
                subtractfour(panel.row(i) + tile, std::min(i + 1, end) - tile, weight + k, lt + k * tilewidth,
                             tilewidth);
        }
    }
}

} // namespace

bool factordense(double *a, int64_t m, const PivotRule &rule, double *pivot, double *dropped) {
    std::vector<double> lt(m > panelwidth ? panelwidth * tilewidth : 0);
    for (int64_t from = 0; from < m; from += panelwidth) {
        const Panel panel{a, m, from, std::min(from + panelwidth, m)};
        if (!eliminatepanel(panel, rule, pivot, dropped))
            return false;
        if (panel.to < m)
            updaterest(panel, pivot, lt.data());
    }
    return true;
}

} // namespace store
