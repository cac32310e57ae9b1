// rows.cpp: blocks of rows come in, and rows are found, filtered and taken out.
#include "rows.h"

#include "failure.h"
#include "scan.h"

#include <algorithm>
#include <cinttypes>

namespace store {

namespace {

constexpr int64_t kSmall = 8192; // terms and rows of a block that is copied to a shared chunk: 100 KB at most
// Chunks count their terms with 32 bits, as engines do.
void requireblock(int64_t nnz) {
    if (nnz > INT32_MAX)
        failf(TRV_ERROR_SIZE_LIMIT, "%" PRId64 " terms exceed the limit of 2147483647 for one block of rows", nnz);
}

constexpr int64_t kSharedFull =
    1 << 20; // a shared chunk takes no more then, so that growing it never doubles the store

// Copies a side of n rows, unless it stands there already; whether it is as the store keeps it. One number for all may
// be infinite, then normalized here, where `allowed`; among several the finite ones are the rule, and a block with
// others is to be gone through one by one.
template <class Allowed> bool copyside(int64_t n, const double *from, int step, Values &side, Allowed allowed) {
    if (n && step == 0) {
        const bool fits = allowed(*from);
        side.fill(n, fits ? normalized(*from) : *from);
        return fits;
    }
    double *to = side.room(n);
    return to == from ? allfinite(n, to) : copyfinite(n, from, step, to);
}

} // namespace

// ---- sides

char Rows::senseof(double lower, double upper) {
    if (lower == upper)
        return '=';
    if (std::isinf(lower))
        return '<';
    return std::isinf(upper) ? '>' : 'R';
}

// ---- adding

TRVrows Rows::open(int64_t nrows, int64_t nnz) {
    ids.requireroom(nrows);
    requireblock(nnz);
    drop();
    small_ = nnz <= kSmall && nrows <= kSmall;
    Chunk &to = small_ ? staging_ : block_;
    openptr_.room(nrows + 1);
    to.var.room(nnz);
    to.coef.room(nnz);
    isopen_ = true;
    opennrows_ = nrows;
    opennnz_ = nnz;
    return {openptr_.data(), to.var.data(), to.coef.data()};
}

double *Rows::openside(int64_t nrows, bool ofupper) {
    ids.requireroom(nrows);
    return (ofupper ? upper : lower).room(nrows);
}

void Rows::drop() noexcept {
    isopen_ = false;
    if (small_)
        return;
    block_ = Chunk();
    openptr_.free();
}

int32_t Rows::commit(const Columns &columns, const double *low, int lowstep, const double *up, int upstep,
                     const TRVnames *newnames) {
    if (!isopen_)
        fail(TRV_ERROR_INVALID_ARGUMENT, "no block of rows is open");
    struct Closing {
        Rows &rows;
        ~Closing() { rows.drop(); }
    } closing{*this};

    Chunk &from = small_ ? staging_ : block_;
    const int64_t nnz = namingrows(TRV_CONSTR, ids.count(), opennrows_, newnames, [&] {
        return tidyterms(columns.ids, marker_, opennrows_, opennnz_, openptr_.data(), from.var.data(),
                         from.coef.data());
    });
    return addopen(nnz, low, lowstep, up, upstep, newnames);
}

int32_t Rows::share(const Columns &columns, int64_t nrows, const TRVsharedrows &rows, const double *low, int lowstep,
                    const double *up, int upstep, const TRVnames *newnames) {
    Keeper keeper(rows.keeper, rows.release, rows.alone);
    requirecount("rows", nrows);
    requirecount("strips", rows.nstrips);
    requirepointer("strips", rows.strips, rows.nstrips);
    if (rows.nstrips)
        return sharestrips(columns, nrows, {rows.strips, static_cast<size_t>(rows.nstrips)}, std::move(keeper), low,
                           lowstep, up, upstep, newnames);
    int64_t nnz;
    if (rows.ptr)
        nnz = rows.ptr[nrows];
    else if (__builtin_mul_overflow(nrows, rows.width, &nnz))
        nnz = INT64_MAX;
    requirecount("terms", nnz);
    requireblock(nnz);
    TRVrows place = open(nrows, 0);
    for (int64_t i = 0; i <= nrows; i++)
        place.ptr[i] = rows.ptr ? rows.ptr[i] : i * rows.width;
    struct Closing {
        Rows &rows;
        ~Closing() { rows.drop(); }
    } closing{*this};
    if (nnz <= kSmall || !tidyalready(columns.ids, nrows, nnz, place.ptr, rows.var, rows.coef)) {
        Buffer<int64_t> pointers;
        pointers.swap(openptr_);
        place = open(nrows, nnz);
        moveterms(place.ptr, pointers.data(), nrows + 1);
        moveterms(place.var, rows.var, nnz);
        moveterms(place.coef, rows.coef, nnz);
        return commit(columns, low, lowstep, up, upstep, newnames);
    }
    small_ = false;
    block_.var = Buffer<int32_t>::borrow(rows.var, nnz);
    block_.coef = Buffer<double>::borrow(rows.coef, nnz);
    block_.keeper = std::move(keeper);
    return addopen(nnz, low, lowstep, up, upstep, newnames);
}

int32_t Rows::sharestrips(const Columns &columns, int64_t nrows, std::span<const TRVstrip> strips, Keeper &&keeper,
                          const double *low, int lowstep, const double *up, int upstep, const TRVnames *newnames) {
    ids.requireroom(nrows);
    const int64_t width = static_cast<int64_t>(strips.size()), nnz = nrows * width; // of 31 bits each
    requireblock(nnz);
    drop();
    if (nnz <= kSmall || !block_.strips.take(columns.ids, nrows, strips)) {
        const TRVrows place = open(nrows, nnz);
        for (int64_t i = 0; i <= nrows; i++)
            place.ptr[i] = i * width;
        layrows(strips, nrows, place.var, place.coef);
        return commit(columns, low, lowstep, up, upstep, newnames);
    }
    struct Closing {
        Rows &rows;
        ~Closing() { rows.drop(); }
    } closing{*this};
    small_ = false;
    opennrows_ = nrows;
    block_.keeper = std::move(keeper);
    return addopen(nnz, low, lowstep, up, upstep, newnames);
}

// The terms of the open block are in the stored form.
int32_t Rows::addopen(int64_t nnz, const double *low, int lowstep, const double *up, int upstep,
                      const TRVnames *newnames) {
    const int64_t n = opennrows_;
    const int32_t first = ids.count();
    requirepointer("Lower", low, n);
    requirepointer("Upper", up, n);
    ids.reserve(n);
    char *s = sense.room(n);
    bool plain = copyside(n, low, lowstep, lower, [](double v) { return v < TRV_INFINITY; });
    plain &= copyside(n, up, upstep, upper, [](double v) { return v > -TRV_INFINITY; });
    for (int64_t i = 0; !plain && i < n; i++) {
        const auto who = [&] { return calledinblock(TRV_CONSTR, first, n, i, newnames); };
        const double l = checkedlower(lower.coming(i), who, "the lower side");
        const double u = checkedupper(upper.coming(i), who, "the upper side");
        if (double *written = lower.coming())
            written[i] = l;
        if (double *written = upper.coming())
            written[i] = u;
    }
    // A side that is one number for all, and says the sense alone, spares a look at each row.
    if (n && low == up && lowstep == upstep)
        std::memset(s, '=', n);
    else if (n && lowstep == 0 && std::isinf(lower.coming(0)))
        std::memset(s, '<', n);
    else if (n && upstep == 0 && std::isinf(upper.coming(0)))
        std::memset(s, '>', n);
    else
        for (int64_t i = 0; i < n; i++)
            s[i] = senseof(lower.coming(i), upper.coming(i));
    preparechunk(nnz);
    names.add(first, n, newnames); // the last step that can fail
    finishchunk(nnz);
    lower.grow(n);
    upper.grow(n);
    sense.grow(n);
    return ids.add(n);
}

// Makes room; an empty chunk that a failure leaves behind does no harm.
void Rows::preparechunk(int64_t nnz) {
    const bool fits = small_ && !chunks_.empty() && chunks_.back().shared;
    if (!fits || static_cast<int64_t>(chunks_.back().var.size()) > kSharedFull) {
        if (chunks_.size() == chunks_.capacity())
            chunks_.reserve(2 * chunks_.size() + 4);
        if (!small_) {
            if (!block_.striped())
                block_.ptr.room(opennrows_ + 1);
            return;
        }
        Chunk fresh;
        fresh.ptr.push(0);
        fresh.first = ids.slots();
        fresh.shared = true;
        chunks_.push_back(std::move(fresh));
    }
    if (!small_)
        return;
    Chunk &to = chunks_.back();
    to.ptr.room(opennrows_);
    to.var.room(nnz);
    to.coef.room(nnz);
    if (to.loose()) {
        to.stop.room(opennrows_);
        to.limit.room(opennrows_);
    }
}

void Rows::finishchunk(int64_t nnz) noexcept {
    if (small_)
        return finishshared(chunks_.back(), nnz);
    block_.first = ids.slots();
    block_.nrows = static_cast<int32_t>(opennrows_);
    block_.nnz = nnz;
    anystriped_ |= block_.striped();
    if (!block_.striped()) {
        std::copy_n(openptr_.data(), opennrows_ + 1, block_.ptr.data());
        block_.ptr.grow(opennrows_ + 1);
    }
    if (!block_.keeper && !block_.striped()) { // strips that count up need nobody to keep anything
        block_.var.grow(nnz);
        block_.coef.grow(nnz);
        block_.var.shrink();
        block_.coef.shrink();
    }
    chunks_.push_back(std::move(block_));
}

void Rows::finishshared(Chunk &to, int64_t nnz) noexcept {
    const int64_t base = to.var.size();
    for (int64_t i = 0; i < opennrows_; i++)
        to.ptr.end()[i] = static_cast<int32_t>(base + openptr_[i + 1]);
    if (to.loose()) {
        for (int64_t i = 0; i < opennrows_; i++)
            to.stop.end()[i] = to.limit.end()[i] = to.ptr.end()[i];
        to.stop.grow(opennrows_);
        to.limit.grow(opennrows_);
    }
    moveterms(to.var.end(), staging_.var.data(), nnz);
    moveterms(to.coef.end(), staging_.coef.data(), nnz);
    to.ptr.grow(opennrows_);
    to.var.grow(nnz);
    to.coef.grow(nnz);
    to.nnz += nnz;
    to.nrows += static_cast<int32_t>(opennrows_);
}

// ---- looking and changing

void Rows::layout() const {
    for (Chunk &chunk : chunks_)
        chunk.layout();
    anystriped_ = false;
}

size_t Rows::chunkat(int32_t slot) const {
    if (lastchunk_ < chunks_.size()) {
        const Chunk &last = chunks_[lastchunk_];
        if (slot >= last.first && slot - last.first < last.nrows)
            return lastchunk_;
    }
    auto after =
        std::upper_bound(chunks_.begin(), chunks_.end(), slot, [](int32_t s, const Chunk &c) { return s < c.first; });
    return lastchunk_ = after - chunks_.begin() - 1;
}

Row Rows::row(int32_t slot) const {
    unpark();
    const Chunk &chunk = chunks_[chunkat(slot)];
    return chunk.row(slot - chunk.first);
}

int64_t Rows::find(const Row &row, int32_t id) {
    const int32_t *end = row.var + row.n, *found = std::find(row.var, end, id);
    return found == end ? -1 : found - row.var;
}

// Of equal pairs each may count as a term more, which only takes room.
void Rows::prepareset(int64_t n, const int32_t *rowids, const int32_t *vars, const double *values) {
    if (n)
        unpark();
    Buffer<int32_t> growing;
    for (int64_t k = 0; k < n; k++) {
        const int32_t slot = ids.slot(rowids[k]);
        Chunk &chunk = chunks_[chunkat(slot)];
        const Row row = chunk.row(slot - chunk.first);
        const bool present = find(row, vars[k]) >= 0;
        if (!present && values[k] != 0.0)
            growing.push(slot);
        else if (present && values[k] == 0.0)
            chunk.prepare(slot - chunk.first, 0);
        else if (present)
            chunk.own();
    }
    std::sort(growing.data(), growing.end());
    for (size_t k = 0, end = 0; k < growing.size(); k = end) {
        while (end < growing.size() && growing[end] == growing[k])
            end++;
        Chunk &chunk = chunks_[chunkat(growing[k])];
        chunk.prepare(growing[k] - chunk.first, static_cast<int64_t>(end - k));
    }
}

bool Rows::set(int32_t slot, const Columns &columns, int32_t id, double value) {
    Chunk &chunk = chunks_[chunkat(slot)];
    const int32_t i = slot - chunk.first;
    const Row old = chunk.row(i);
    const int64_t k = find(old, id);
    if (value == (k < 0 ? 0.0 : old.coef[k]))
        return false;
    if (k >= 0) {
        chunk.set(i, k, value);
        return true;
    }
    chunk.append(i, id, value);
    stray_ |= slot < ids.committed() && columns.ids.position(id) < 0;
    return true;
}

int64_t Rows::nonzeros(const Columns &columns) const {
    int64_t sum = 0;
    if (stray_) {
        each([&](int32_t, const Row &row) {
            for (int64_t k = 0; k < row.n; k++)
                sum += columns.ids.position(row.var[k]) >= 0;
        });
        return sum;
    }
    for (const Chunk &chunk : chunks_) {
        const int32_t rest = ids.committed() - chunk.first;
        if (rest >= chunk.nrows)
            sum += chunk.nnz;
        else
            for (int32_t i = 0; i < rest; i++)
                sum += chunk.row(i).n;
    }
    return sum;
}

// ---- removal and update

// Takes out the terms of variables that are gone, or were removed while pending.
void Rows::filterchunk(Chunk &chunk, const Registry &variables, bool pendingonly) {
    chunk.maketight();
    int64_t kept = 0, from = 0;
    for (int32_t i = 0; i < chunk.nrows; i++) {
        const int64_t to = chunk.ptr[i + 1];
        for (int64_t k = from; k < to; k++) {
            const int32_t s = variables.slot(chunk.var[k]);
            if (s < 0 || (!pendingonly && variables.gone(s)))
                continue;
            chunk.var[kept] = chunk.var[k];
            chunk.coef[kept++] = chunk.coef[k];
        }
        chunk.ptr[i + 1] = static_cast<int32_t>(kept);
        from = to;
    }
    chunk.nnz = kept;
    chunk.var.cut(kept);
    chunk.coef.cut(kept);
}

void Rows::filterrows(Chunk &chunk) {
    chunk.maketight();
    int64_t kept = 0, from = 0;
    int32_t keptrows = 0;
    for (int32_t i = 0; i < chunk.nrows; i++) {
        const int64_t to = chunk.ptr[i + 1], n = to - from;
        if (!ids.gone(chunk.first + i)) {
            moveterms(chunk.var.data() + kept, chunk.var.data() + from, n);
            moveterms(chunk.coef.data() + kept, chunk.coef.data() + from, n);
            kept += n;
            chunk.ptr[++keptrows] = static_cast<int32_t>(kept);
        }
        from = to;
    }
    chunk.nrows = keptrows;
    chunk.nnz = kept;
    chunk.ptr.cut(keptrows + 1);
    chunk.var.cut(kept);
    chunk.coef.cut(kept);
}

void Rows::purge(const Columns &columns) {
    if (!stale_)
        return;
    unpark();
    for (Chunk &chunk : chunks_) {
        chunk.own();
        filterchunk(chunk, columns.ids, true);
    }
    stale_ = false;
}

void Rows::prepareupdate(const Columns &columns) {
    const bool filter = columns.ids.anygone() || ids.anygone();
    if (filter)
        unpark();
    for (Chunk &chunk : chunks_) {
        if (filter)
            chunk.own();
        if (filter || static_cast<int64_t>(chunk.var.size()) > chunk.nnz + chunk.nnz / 2 + 1024)
            chunk.maketight();
    }
}

void Rows::update(const Columns &columns) noexcept {
    const bool terms = columns.ids.anygone(), whole = ids.anygone();
    int32_t first = 0;
    for (Chunk &chunk : chunks_) {
        if (whole)
            filterrows(chunk);
        if (terms)
            filterchunk(chunk, columns.ids, false);
        if ((terms || whole) && !chunk.shared) {
            chunk.var.shrink();
            chunk.coef.shrink();
        }
        chunk.first = first;
        first += chunk.nrows;
    }
    std::erase_if(chunks_, [](const Chunk &chunk) { return chunk.nrows == 0; });
    ids.compact(lower);
    ids.compact(upper);
    ids.compact(sense);
    ids.commit();
    stray_ = stale_ = false;
}

} // namespace store
