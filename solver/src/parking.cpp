// parking.cpp: the terms of all rows turned to columns for an engine, and back.
//
// An engine takes columns and copies them: rows, columns and the copy together would be the peak of memory. So the rows
// become the columns (turn.h), and stay so until somebody asks for rows. Turning costs 10 to 15 ns a term. Where terms
// stand by columns as they do by rows (one row over all variables, sums by row) only their indices are written anew.
//
// Rows come back with their terms in ascending order. Those that stood otherwise are parked only where all rows of
// their chunk have one length and one order, as those of an array expression have.
#include "rows.h"

#include "matrix.h"
#include "scatter.h"
#include "turn.h"

#include <algorithm>
#include <numeric>
#include <span>

#include <sys/mman.h>

namespace store {

namespace {

constexpr int64_t kManyTerms = 1 << 16; // fewer are copied before anybody notices
// With fewer terms a column an engine's copy of the columns' bounds is the larger part, and a matrix in fresh memory is
// the faster one where no cache is missed.
constexpr int64_t kFewTerms = 4;
// So many terms are copied in any case: their columns stay in the cache that all cores share, where an entry costs 4 ns
// instead of 10 wherever it goes, and the rows' memory has gone back when the engine makes its copy.
constexpr int64_t kInCache = 1 << 19;
constexpr int32_t kNone = -1;

Piece pieceof(const Chunk &chunk) {
    return {chunk.nrows, chunk.ptr.data(), chunk.var.data(), chunk.coef.data()};
}

// Descents are counted over all terms and over the ends of rows, without a branch a row.
bool ascendinrows(const Chunk &chunk) {
    const int32_t *var = chunk.var.data(), *ptr = chunk.ptr.data();
    int32_t descents = 0, ends = 0;
    for (int64_t k = 1; k < chunk.nnz; k++)
        descents += var[k] <= var[k - 1];
    for (int32_t i = 1; i < chunk.nrows; i++)
        if (const int64_t at = ptr[i]; at > 0 && at < ptr[i + 1])
            ends += var[at] <= var[at - 1];
    return descents == ends;
}

// place[r]: which term of a row has the rank r.
Order orderof(const Chunk &chunk, std::span<const int8_t> place) {
    Order order{chunk.first, chunk.nrows, static_cast<int32_t>(place.size()), {}};
    for (int8_t r = 0; r < order.width; r++)
        order.rank[place[r]] = r;
    return order;
}

// The order that all rows of the chunk have in common; false where they have none.
bool commonorder(const Chunk &chunk, Order &order) {
    const int64_t width = chunk.nrows ? chunk.nnz / chunk.nrows : 0;
    if (width < 2 || width > Order::kTerms || width * chunk.nrows != chunk.nnz)
        return false;
    int8_t place[Order::kTerms];
    std::iota(place, place + width, int8_t{0});
    std::sort(place, place + width, [&](int8_t a, int8_t b) { return chunk.var[a] < chunk.var[b]; });
    order = orderof(chunk, {place, static_cast<size_t>(width)});
    bool common = true;
    for (int32_t i = 0; i < chunk.nrows && common; i++) {
        const int32_t *var = chunk.var.data() + i * width;
        common = chunk.ptr[i] == i * width;
        for (int64_t r = 1; r < width; r++)
            common &= var[place[r - 1]] < var[place[r]];
    }
    return common;
}

void restore(const Order &order, const int32_t *ptr, int32_t *var, double *coef) {
    int32_t ids[Order::kTerms];
    double values[Order::kTerms];
    for (int32_t i = order.first; i < order.first + order.nrows; i++) {
        std::copy_n(var + ptr[i], order.width, ids);
        std::copy_n(coef + ptr[i], order.width, values);
        for (int32_t k = 0; k < order.width; k++) {
            var[ptr[i] + k] = ids[order.rank[k]];
            coef[ptr[i] + k] = values[order.rank[k]];
        }
    }
}

void countcolumns(const Piece &piece, int32_t *columns) {
    for (int32_t k = 0; k < piece.ptr[piece.n]; k++)
        columns[piece.index[k]]++;
}

void putrows(const Piece &piece, int32_t first, const Places &places) {
    for (int32_t r = 0; r < piece.n; r++)
        for (int32_t k = piece.ptr[r]; k < piece.ptr[r + 1]; k++)
            places.put({piece.index[k], first + r, piece.value[k]});
}

// Turned in fresh memory, what is read stays as it is: count(columns) adds up the terms of each of the n columns, and
// put(places) puts them there.
template <class Count, class Put>
void scattered(int32_t n, int32_t *ptr, int32_t *var, double *coef, Count count, Put put) {
    std::fill_n(ptr, int64_t{n} + 2, 0);
    count(ptr + 2);
    std::partial_sum(ptr, ptr + n + 2, ptr);
    put(Places{ptr + 1, var, coef});
}

// The chunk whose arrays the columns go to: the largest that may be written and can grow to hold them all.
int32_t largest(const std::vector<Chunk> &chunks) {
    if (chunks.size() == 1)
        return 0;
    int32_t found = kNone;
    for (int32_t c = 0; c < static_cast<int32_t>(chunks.size()); c++)
        if (!chunks[c].keeper && (found == kNone || chunks[c].nnz > chunks[found].nnz))
            found = c;
    return found;
}

constexpr size_t kPage = 4096;

// The pages within an array that nobody reads any more go back to the system, though it is another's block.
void drop(Buffer<int32_t> &array) {
    const auto from = (reinterpret_cast<uintptr_t>(array.data()) + kPage - 1) / kPage * kPage;
    const auto to = reinterpret_cast<uintptr_t>(array.end()) / kPage * kPage;
    if (from < to)
        madvise(reinterpret_cast<void *>(from), to - from, MADV_DONTNEED); // a failure costs memory only
}

// In a chunk that ascends throughout the terms stay where they are, and each variable gives way to the number of its
// row. Of a single row these are all 0, which takes no memory.
void sayrows(Chunk &chunk) {
    for (int32_t i = 0; chunk.nrows > 1 && i < chunk.nrows; i++)
        std::fill(chunk.var.data() + chunk.ptr[i], chunk.var.data() + chunk.ptr[i + 1], i);
    if (chunk.nrows > 1)
        return;
    Buffer<int32_t> zeros;
    zeros.zeros(chunk.nnz);
    zeros.grow(chunk.nnz);
    if (chunk.keeper)
        drop(chunk.var);
    chunk.var = std::move(zeros);
}

int64_t terms(const std::vector<Chunk> &chunks) {
    return std::accumulate(chunks.begin(), chunks.end(), int64_t{0},
                           [](int64_t sum, const Chunk &chunk) { return sum + chunk.nnz; });
}

} // namespace

// Every term stands in a row of the model and means a variable of the model, whose id is its position.
bool Rows::parkable(const Columns &columns) const {
    if ((termyard_ && termyard_->pinned()) || isparked() || stray_ || stale_)
        return false;
    if (!columns.ids.identity() || columns.ids.anygone() || ids.anygone() || ids.slots() != ids.committed())
        return false;
    const int64_t nnz = terms(chunks_);
    const auto whole = [](const Chunk &c) { return c.striped() || (!c.loose() && c.ptr[c.nrows] == c.nnz); };
    return (nnz >= kManyTerms || anystriped_) && nnz <= INT32_MAX && std::ranges::all_of(chunks_, whole) &&
           (chunks_.size() > 1 || !chunks_.front().keeper || chunks_.front().striped() ||
            chunks_.front().keeper.alone());
}

bool Rows::park(const Columns &columns) {
    if (!parkable(columns))
        return false;
    const int32_t ncols = columns.ids.committed();
    const int64_t nnz = terms(chunks_);
    if (chunks_.size() == 1 && !chunks_.front().striped() && ascendingthroughout(chunks_.front())) {
        Chunk &chunk = chunks_.front();
        Buffer<int32_t> start;
        columnstarts(chunk, ncols, start.room(int64_t{ncols} + 1));
        sayrows(chunk);
        start.grow(int64_t{ncols} + 1);
        start_.swap(start);
        chunk.ptr.free();
        chunk.shared = false;
        return true;
    }
    std::vector<Order> orders;
    for (const Chunk &chunk : chunks_) {
        Order order;
        if (chunk.striped() ? std::ranges::is_sorted(chunk.strips.ascending()) : ascendinrows(chunk))
            continue;
        if (chunk.striped())
            order = orderof(chunk, chunk.strips.ascending());
        else if (!commonorder(chunk, order))
            return false;
        orders.push_back(order);
    }
    const bool copy = nnz < kInCache || (nnz < kFewTerms * ncols && !farapart(chunks_));
    bool turned = copy && copycolumns(ncols, nnz);
    if (!turned) {
        layout();
        turned = nnz >= kManyTerms && turncolumns(ncols, nnz);
    }
    if (turned)
        orders_.swap(orders);
    return turned;
}

bool Rows::copycolumns(int32_t ncols, int64_t nnz) {
    const auto count = [&](int32_t *columns) {
        for (const Chunk &chunk : chunks_)
            if (chunk.striped())
                chunk.strips.count(chunk.nrows, columns);
            else
                countcolumns(pieceof(chunk), columns);
    };
    const auto put = [&](const Places &places) {
        for (const Chunk &chunk : chunks_)
            if (chunk.striped())
                chunk.strips.put(chunk.nrows, chunk.first, places);
            else
                putrows(pieceof(chunk), chunk.first, places);
    };
    Chunk all;
    Buffer<int32_t> start;
    scattered(ncols, start.room(int64_t{ncols} + 2), all.var.room(nnz), all.coef.room(nnz), count, put);
    all.var.grow(nnz);
    all.coef.grow(nnz);
    standsby(start, ncols, std::move(all));
    return true;
}

bool Rows::turncolumns(int32_t ncols, int64_t nnz) {
    Turn turn(ncols, nnz);
    for (const Chunk &chunk : chunks_)
        turn.count(pieceof(chunk));
    const int32_t kept = largest(chunks_);
    Chunk fresh;
    Chunk &place = kept == kNone ? fresh : chunks_[kept];
    const int64_t held = kept == kNone ? 0 : place.nnz;
    if (held < nnz) {
        place.var.reserve(nnz);
        place.coef.reserve(nnz);
    }
    Buffer<int32_t> start;
    start.room(int64_t{ncols} + 1);
    if (!turn.prepare(place.var.data(), place.coef.data(), held))
        return false;
    for (Chunk &chunk : chunks_) {
        turn.read(chunk.first, pieceof(chunk));
        if (&chunk != &place)
            chunk = Chunk(); // its memory may serve the next
    }
    turn.finish(start.data());
    place.ptr.free();
    place.var.cut(nnz);
    place.coef.cut(nnz);
    standsby(start, ncols, std::move(place));
    return true;
}

// All terms are in one chunk now, by columns.
void Rows::standsby(Buffer<int32_t> &start, int32_t ncols, Chunk &&all) noexcept {
    start.grow(int64_t{ncols} + 1);
    start_.swap(start);
    all.first = 0;
    all.nrows = ids.committed();
    all.nnz = start_.data()[ncols];
    all.shared = false;
    Chunk only = std::move(all);
    chunks_.front() = std::move(only);
    chunks_.erase(chunks_.begin() + 1, chunks_.end());
    anystriped_ = false;
}

TRVmatrix Rows::parked(int32_t ncols) {
    if (!isparked() || chunks_.size() != 1)
        return {};
    Chunk &chunk = chunks_.front();
    start_.pad(int64_t{ncols} + 1, static_cast<int32_t>(chunk.nnz));
    return {ncols, chunk.nnz, start_.data(), chunk.var.data(), chunk.coef.data()};
}

void Rows::turnback() const {
    Chunk &chunk = chunks_.front();
    const Piece columns{static_cast<int32_t>(start_.size()) - 1, start_.data(), chunk.var.data(), chunk.coef.data()};
    Buffer<int32_t> ptr;
    ptr.room(int64_t{chunk.nrows} + 2);
    Turn turn(chunk.nrows, chunk.nnz);
    turn.count(columns);
    const bool watched = termyard_ && termyard_->pinned();
    if (!watched && turn.prepare(chunk.var.data(), chunk.coef.data(), chunk.nnz)) {
        turn.read(0, columns);
        turn.finish(ptr.data());
    } else {
        Buffer<int32_t> var;
        Buffer<double> coef;
        scattered(
            chunk.nrows, ptr.data(), var.room(chunk.nnz), coef.room(chunk.nnz),
            [&](int32_t *rows) { countcolumns(columns, rows); },
            [&](const Places &places) { putrows(columns, 0, places); });
        var.grow(chunk.nnz);
        coef.grow(chunk.nnz);
        chunk.var = std::move(var);
        chunk.coef = std::move(coef);
        chunk.keeper = Keeper();
    }
    for (const Order &order : orders_)
        restore(order, ptr.data(), chunk.var.data(), chunk.coef.data());
    ptr.grow(int64_t{chunk.nrows} + 1);
    chunk.ptr = std::move(ptr);
    start_.free();
    orders_.clear();
}

} // namespace store
