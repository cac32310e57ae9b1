// rows.h: Rows, the linear rows: sides by slot (17 bytes a row at most), and terms in chunks of CSR form.
//
// A block that arrives with many terms becomes a chunk of its own, in the very memory that the caller wrote into. Small
// blocks go to the end of a growing chunk which they share, so that ten thousand calls of one row cost ten thousand
// appends. Terms hold ids, not positions: removing variables moves no number.
//
//   tight chunk    row i is var[ptr[i]] .. var[ptr[i+1]]
//   loose chunk    row i is var[ptr[i]] .. var[stop[i]], with space to grow until limit[i]
//   striped chunk  the terms are told by their place in the row (strips.h), until somebody looks at a row
//
// A chunk becomes loose when single coefficients are added or taken away; rows that outgrow their space move to its
// end. An update makes it tight again where much space is wasted.
//
// Large models are parked for an engine: all terms stand by columns then, in the memory in which they stood by rows, in
// one chunk without row pointers. Whoever asks for rows next has them turned back, in the order in which they were
// (parking.cpp).
#pragma once

#include "buffer.h"
#include "columns.h"
#include "names.h"
#include "registry.h"
#include "strips.h"
#include "tarvo_engine.h"
#include "values.h"

#include <vector>

namespace store {

struct Row {
    int64_t n;
    const int32_t *var;
    const double *coef;
};

// Whose memory a chunk's terms stand in, where it is not the chunk's own.
class Keeper {
  public:
    Keeper() = default;
    Keeper(void *keeper, void (*release)(void *), int (*alone)(void *))
        : keeper_(keeper), release_(release), alone_(alone) {}
    Keeper(Keeper &&other) noexcept
        : keeper_(std::exchange(other.keeper_, nullptr)), release_(std::exchange(other.release_, nullptr)),
          alone_(other.alone_), yard_(other.yard_) {}
    Keeper &operator=(Keeper &&other) noexcept {
        std::swap(keeper_, other.keeper_);
        std::swap(release_, other.release_);
        std::swap(alone_, other.alone_);
        std::swap(yard_, other.yard_);
        return *this;
    }
    ~Keeper() {
        if (release_ && yard_ && yard_->pinned())
            yard_->bury(keeper_, release_);
        else if (release_)
            release_(keeper_);
    }
    void guard(Yard *yard) { yard_ = yard; } // as Buffer::guard
    explicit operator bool() const { return release_; }
    // Nobody else looks at the memory: it may be written.
    bool alone() const { return alone_ && alone_(keeper_); }

  private:
    void *keeper_ = nullptr;
    void (*release_)(void *) = nullptr;
    int (*alone_)(void *) = nullptr;
    Yard *yard_ = nullptr;
};

struct Chunk {
    int32_t first = 0; // slot of its first row
    int32_t nrows = 0;
    int64_t nnz = 0;       // live terms
    bool shared = false;   // small blocks may be appended
    Buffer<int32_t> ptr;   // nrows + 1; the last entry is where the next row would begin
    Buffer<int32_t> stop;  // loose chunks only
    Buffer<int32_t> limit; // loose chunks only
    Buffer<int32_t> var;
    Buffer<double> coef;
    Keeper keeper; // of var and coef, which are then only read (and turned, where nobody else looks)
    Strips strips; // where there are any, ptr, var and coef are empty, and the keeper is theirs

    bool loose() const { return !stop.empty(); }
    bool striped() const { return !strips.empty(); }
    void layout(); // of strips
    Row row(int32_t i) const {
        const int64_t from = ptr[i], to = loose() ? stop[i] : ptr[i + 1];
        return {to - from, var.data() + from, coef.data() + from};
    }
    void own(); // before any term is changed
    void makeloose();
    void maketight();
    void set(int32_t i, int64_t k, double value); // 0 takes the k-th term away
    // Everything that setting terms of row i and appending n to it needs memory for.
    void prepare(int32_t i, int64_t n);
    void append(int32_t i, int32_t id, double value); // n times at most since prepare

  private:
    void moverow(int32_t i, int64_t n);
};

// Rows of equal length and how their terms stand: the k-th is the one of rank[k] by ascending ids.
struct Order {
    static constexpr int kTerms = Strips::kMost; // at most

    int32_t first, nrows, width;
    int8_t rank[kTerms];
};

// Finds duplicates within one row: where each variable was met last, counted over all rows since the array was cleared.
class Marker {
  public:
    void prepare(int64_t variables, int64_t terms);
    int32_t next() const { return next_; }
    int32_t &met(int32_t id) { return met_[id]; }
    void advance(int64_t n) { next_ += static_cast<int32_t>(n); }

  private:
    Buffer<int32_t> met_;
    int32_t next_ = 1; // 0 is never
};

class Rows {
  public:
    Names names{'R'};
    Registry ids{TRV_CONSTR, names};
    Values lower, upper;
    Buffer<char> sense; // '<' '>' '=' 'R'; a free row says which side its next RHS will be

    TRVrows open(int64_t nrows, int64_t nnz);
    double *openside(int64_t nrows, bool ofupper);
    int32_t commit(const Columns &columns, const double *low, int lowstep, const double *up, int upstep,
                   const TRVnames *newnames);
    void drop() noexcept;
    int32_t share(const Columns &columns, int64_t nrows, const TRVsharedrows &rows, const double *low, int lowstep,
                  const double *up, int upstep, const TRVnames *newnames);

    Row row(int32_t slot) const;
    // Position of the term in its row, -1 where there is none.
    static int64_t find(const Row &row, int32_t id);
    // The part of setting these coefficients that needs memory; it changes nothing that shows.
    void prepareset(int64_t n, const int32_t *rowids, const int32_t *vars, const double *values);
    // One coefficient that was prepared; false if it already had this value.
    bool set(int32_t slot, const Columns &columns, int32_t id, double value);
    // Terms in the rows of the model.
    int64_t nonzeros(const Columns &columns) const;
    // A row of the model may hold a term of a pending variable, which has no position.
    bool stray() const { return stray_; }

    // After a removal of variables terms may stand that are to be gone; purge takes out those of pending variables,
    // which are removed at once. Cheap where there are none.
    void variablesremoved() { stale_ = true; }
    void purge(const Columns &columns);
    // The part of an update that needs memory; it changes nothing that shows.
    void prepareupdate(const Columns &columns);
    // Comes before the update of the columns, which forget who is gone.
    void update(const Columns &columns) noexcept;

    // As rows, laid out where they were parked or striped.
    const std::vector<Chunk> &chunks() const {
        unpark();
        return chunks_;
    }
    // Turns all terms to columns, where that brings something and nobody looks at them. False: nothing has changed.
    bool park(const Columns &columns);
    // The parked terms, for so many columns; without start where none are, or rows came since.
    TRVmatrix parked(int32_t ncols);
    // What TRVgetdata points into.
    void guard(Yard *yard) {
        lower.guard(yard);
        upper.guard(yard);
    }
    // What TRVviewrows and TRVviewcolumns point into.
    void guardterms(Yard *yard) {
        termyard_ = yard;
        start_.guard(yard);
        if (chunks_.size() == 1) {
            Chunk &chunk = chunks_.front();
            chunk.ptr.guard(yard);
            chunk.var.guard(yard);
            chunk.coef.guard(yard);
            chunk.keeper.guard(yard);
        }
    }
    // f(slot, Row) for the rows in the model, in order.
    template <class F> void each(F f) const {
        for (const Chunk &chunk : chunks())
            for (int32_t i = 0; i < chunk.nrows && chunk.first + i < ids.committed(); i++)
                f(chunk.first + i, chunk.row(i));
    }

    static char senseof(double lower, double upper);
    template <class Who> static double checkedlower(double value, Who who, const char *what) {
        if (std::isnan(value) || value >= TRV_INFINITY)
            failvalue(what, who, value);
        return normalized(value);
    }
    template <class Who> static double checkedupper(double value, Who who, const char *what) {
        if (std::isnan(value) || value <= -TRV_INFINITY)
            failvalue(what, who, value);
        return normalized(value);
    }

  private:
    int32_t sharestrips(const Columns &columns, int64_t nrows, std::span<const TRVstrip> strips, Keeper &&keeper,
                        const double *low, int lowstep, const double *up, int upstep, const TRVnames *newnames);
    int32_t addopen(int64_t nnz, const double *low, int lowstep, const double *up, int upstep,
                    const TRVnames *newnames);
    void preparechunk(int64_t nnz);
    void finishchunk(int64_t nnz) noexcept;
    void finishshared(Chunk &to, int64_t nnz) noexcept;
    void filterchunk(Chunk &chunk, const Registry &variables, bool pendingonly);
    void filterrows(Chunk &chunk);
    size_t chunkat(int32_t slot) const;
    bool isparked() const { return !start_.empty(); }
    void unpark() const {
        if (isparked())
            turnback();
        if (anystriped_)
            layout();
    }
    void layout() const;
    bool parkable(const Columns &columns) const;
    bool copycolumns(int32_t ncols, int64_t nnz);
    bool turncolumns(int32_t ncols, int64_t nnz);
    void standsby(Buffer<int32_t> &start, int32_t ncols, Chunk &&all) noexcept;
    void turnback() const;

    // By rows or by columns: what shows is the same, so that readers may have them turned back.
    mutable std::vector<Chunk> chunks_;
    mutable Buffer<int32_t> start_; // of columns, while the first chunk is parked; else empty
    mutable std::vector<Order> orders_;
    mutable bool anystriped_ = false;
    Yard *termyard_ = nullptr;
    mutable size_t lastchunk_ = 0; // neighbouring rows are asked for one after the other
    bool stray_ = false, stale_ = false;
    Marker marker_;

    // The open block: in fresh memory if it is large, else in the staging chunk, which is kept.
    bool isopen_ = false, small_ = false;
    int64_t opennrows_ = 0, opennnz_ = 0;
    Buffer<int64_t> openptr_; // as wide as callers have them; chunks keep 32 bits, which is what engines read
    Chunk block_, staging_;
};

// Whether the terms are in the stored form as they are: valid, ascending in each row, without zeros.
bool tidyalready(const Registry &variables, int64_t nrows, int64_t nnz, const int64_t *ptr, const int32_t *var,
                 const double *coef);
// Checks the terms of a block of rows and brings them to the stored form: duplicates summed, zeros dropped. Returns
// what is left.
int64_t tidyterms(const Registry &variables, Marker &marker, int64_t nrows, int64_t nnz, int64_t *ptr, int32_t *var,
                  double *coef);

} // namespace store
