// Whether a long call is to stop: the function that TRVsetstop gave is asked at points where nothing is half done.
//
//     const StopScope scope(model);          for one call; an outer call on this thread goes on with its own function
//     check_stop();                          throws FileError, TRV_ERROR_INTERRUPTED, if the function says so
//     check_stop_at(i);                      in a loop over all elements or terms: every so often
//
// The function in force belongs to the thread, not to each stream and table: what reads and writes stands under one
// call, and hands down no model.
#ifndef TARVO_STOP_H
#define TARVO_STOP_H

#include <cstdint>

#include "tarvo.h"

namespace trv {

class StopScope {
  public:
    explicit StopScope(const TRVmodel *model);
    ~StopScope();
    StopScope(const StopScope &) = delete;
    StopScope &operator=(const StopScope &) = delete;

  private:
    const TRVmodel *outer_;
};

void check_stop();

// A few milliseconds apart where an element costs a look-up far from the cache.
inline void check_stop_at(std::int64_t i) {
    if ((i & 0x7FFF) == 0) {
        check_stop();
    }
}

} // namespace trv
#endif
