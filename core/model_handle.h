// The model handle: owns the store, and knows which scalar objects are alive.
//
// An object stands in the handle's table under its id while it lives, as a borrowed pointer, and takes itself out when
// it dies; it holds the handle, so the handle outlives all of its objects and no cycle exists. Tables are cut into
// chunks of 256 ids: one living object of four million costs 130 KB, not 32 MB.
#pragma once

#include "state.h"

#include <memory>
#include <vector>

namespace tarvopy::core {

class IdTable {
  public:
    ScalarObject *find(int32_t id) const {
        size_t c = static_cast<size_t>(id) / chunk_size;
        return c < chunks_.size() && chunks_[c] ? chunks_[c]->objects[id % chunk_size] : nullptr;
    }
    void prefetch_slot(int32_t id) const {
        size_t c = static_cast<size_t>(id) / chunk_size;
        if (c < chunks_.size() && chunks_[c])
            __builtin_prefetch(&chunks_[c]->objects[id % chunk_size]);
    }
    void insert(int32_t id, ScalarObject *object); // throws std::bad_alloc before anything has changed
    void remove(int32_t id) noexcept;

  private:
    static constexpr int chunk_size = 256;
    struct Chunk {
        int alive = 0;
        ScalarObject *objects[chunk_size] = {};
    };
    std::vector<std::unique_ptr<Chunk>> chunks_;
    // The chunk that was emptied last, so that a loop which makes and drops one object at a time does not allocate.
    std::unique_ptr<Chunk> spare_;
};

// kind: TRV_VAR, TRV_CONSTR, ...
IdTable &id_table(ModelObject *model, int kind);

// The store, or an exception: closed, or an engine runs on it, or a file is read or written.
TRVmodel *open_store(ModelObject *model);

// Why the store cannot be asked now, for texts that must not raise; NULL if it can.
inline const char *unavailable(const ModelObject *model) {
    if (!model->store)
        return "model closed";
    return model->solving == in_file ? "being read or written" : model->solving ? "being solved" : nullptr;
}

} // namespace tarvopy::core
