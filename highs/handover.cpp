// handover.cpp: a whole model in one call, but for what HiGHS can be told in pieces afterwards: that call copies all
// arrays and then makes those of the solution, so what is written out for it alone stands at the peak of memory.
#include "handover.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include <sys/mman.h>

namespace tarvopy::highs {

namespace {

// Columns whose types are told at once, as integers of four bytes.
constexpr HighsInt types_at_once = 1 << 15;
// Rows whose sides are told at once: beyond this size HiGHS' copies come from the system anew each time.
constexpr HighsInt sides_at_once = 1 << 13;
// A row told of separately costs 7 ns, 2 to 5 % of loading one of so many terms. With fewer terms a row the time is
// worth more than the memory, which is then no more than others have at the peak.
constexpr HighsInt many_terms = 4;

// Numbers in memory straight from the system: all 0, and where they stay so they take none.
class Pages {
  public:
    explicit Pages(std::size_t n) : bytes_(n * sizeof(double)) {
        void *memory =
            mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        data_ = static_cast<double *>(memory);
    }
    Pages(Pages &&other) noexcept : data_(std::exchange(other.data_, nullptr)), bytes_(other.bytes_) {}
    Pages &operator=(Pages &&) = delete;
    ~Pages() {
        if (data_)
            munmap(data_, bytes_);
    }
    double *data() { return data_; }
    std::size_t size() const { return bytes_ / sizeof(double); }
    // Before much is written: fresh small pages cost more than the writing.
    void fill(double value) {
        if (bytes_ >= large)
            madvise(data_, bytes_, MADV_HUGEPAGE); // where the system has none, small ones do
        std::fill_n(data_, size(), value);
    }

  private:
    static constexpr std::size_t large = 4 * 1024 * 1024;

    double *data_;
    std::size_t bytes_;
};

// Arrays for a call that takes nothing else. What has one value throughout is written out, once for all that have it:
// bounds and sides have 0 and the infinities in common.
class WrittenOut {
  public:
    const double *of(const Numbers &numbers, HighsInt n) {
        if (numbers.step || n == 0)
            return numbers.from;
        const auto bits = std::bit_cast<std::uint64_t>(*numbers.from);
        for (Written &written : written_)
            if (written.bits == bits && written.pages.size() >= static_cast<std::size_t>(n))
                return written.pages.data();
        Pages pages(n);
        if (bits)
            pages.fill(*numbers.from);
        written_.push_back({bits, std::move(pages)});
        return written_.back().pages.data();
    }

  private:
    struct Written {
        std::uint64_t bits;
        Pages pages;
    };
    std::vector<Written> written_;
};

HighsInt worse(HighsInt status, HighsInt other) {
    return status == kHighsStatusError || other == kHighsStatusError ? kHighsStatusError : std::max(status, other);
}

HighsInt type_of(char letter) {
    return letter == 'C' ? kHighsVarTypeContinuous : letter == 'S' ? kHighsVarTypeSemiContinuous : kHighsVarTypeInteger;
}

HighsInt pass_lp(void *highs, const ModelArrays &m) {
    WrittenOut arrays;
    return library().passLp(highs, m.ncols, m.nrows, m.nnz, m.format, m.sense, m.offset, m.cost,
                            arrays.of(m.lb, m.ncols), arrays.of(m.ub, m.ncols), arrays.of(m.lower, m.nrows),
                            arrays.of(m.upper, m.nrows), m.start, m.index, m.value);
}

// With all types: HiGHS looks at the bounds of semi-continuous variables only when it is given the whole.
HighsInt pass_mip(void *highs, const ModelArrays &m) {
    WrittenOut arrays;
    std::vector<HighsInt> types(m.ncols);
    std::transform(m.vtype, m.vtype + m.ncols, types.begin(), type_of);
    return library().passMip(highs, m.ncols, m.nrows, m.nnz, m.format, m.sense, m.offset, m.cost,
                             arrays.of(m.lb, m.ncols), arrays.of(m.ub, m.ncols), arrays.of(m.lower, m.nrows),
                             arrays.of(m.upper, m.nrows), m.start, m.index, m.value, types.data());
}

HighsInt pass_types(void *highs, const ModelArrays &m) {
    std::vector<HighsInt> types(std::min(m.ncols, types_at_once));
    HighsInt status = kHighsStatusOk;
    for (HighsInt from = 0; from < m.ncols && status != kHighsStatusError; from += types_at_once) {
        const HighsInt n = std::min(types_at_once, m.ncols - from);
        const char *letters = m.vtype + from;
        if (std::count(letters, letters + n, 'C') == n)
            continue;
        std::transform(letters, letters + n, types.begin(), type_of);
        status = worse(status, library().changeColsIntegralityByRange(highs, from, from + n - 1, types.data()));
    }
    return status;
}

// So many of the numbers at a time.
class Piece {
  public:
    Piece(const Numbers &numbers, HighsInt n) : numbers_(numbers), same_(numbers.step ? 0 : n, *numbers.from) {}
    const double *at(HighsInt i) const { return numbers_.step ? numbers_.from + i : same_.data(); }

  private:
    Numbers numbers_;
    std::vector<double> same_;
};

HighsInt pass_sides(void *highs, const ModelArrays &m) {
    const Piece lower(m.lower, sides_at_once), upper(m.upper, sides_at_once);
    HighsInt status = kHighsStatusOk;
    for (HighsInt from = 0; from < m.nrows && status != kHighsStatusError; from += sides_at_once) {
        const HighsInt to = std::min(from + sides_at_once, m.nrows) - 1;
        status = worse(status, library().changeRowsBoundsByRange(highs, from, to, lower.at(from), upper.at(from)));
    }
    return status;
}

bool sides_in_pieces(const ModelArrays &m) {
    return (!m.lower.step || !m.upper.step) && m.nrows > sides_at_once && m.nnz / many_terms >= m.nrows;
}

HighsInt pass_all_but_types(void *highs, const ModelArrays &m) {
    if (!sides_in_pieces(m))
        return pass_lp(highs, m);
    static constexpr double nothing = 0.0; // any pair of sides that HiGHS accepts, and which takes no memory
    ModelArrays first = m;
    first.lower = first.upper = {&nothing, 0};
    const HighsInt status = pass_lp(highs, first);
    return status == kHighsStatusError ? status : worse(status, pass_sides(highs, m));
}

} // namespace

HighsInt hand_over(void *highs, const ModelArrays &m) {
    if (m.vtype && std::find(m.vtype, m.vtype + m.ncols, 'S') != m.vtype + m.ncols)
        return pass_mip(highs, m);
    const HighsInt status = pass_all_but_types(highs, m);
    return !m.vtype || status == kHighsStatusError ? status : worse(status, pass_types(highs, m));
}

} // namespace tarvopy::highs
