// pins.h: Yard, where memory goes that the store is done with while somebody outside still looks at it.
//
// TRVpin marks the buffers that views point into. A marked buffer that grows or goes away while a pin is held leaves
// its memory in the yard of its model, which is emptied when the last pin goes. So a view may show old values, never
// memory that was given back. Without pins this costs one branch where memory is given back.
#pragma once

#include <new>
#include <vector>

namespace store {

class Yard {
  public:
    bool pinned() const { return pins_ > 0; }
    void pin() { pins_++; }
    // The last pin goes after what is buried: releasing may run anybody's code, which may pin again.
    void unpin() noexcept {
        while (pins_ == 1 && !buried_.empty()) {
            Grave grave = buried_.back();
            buried_.pop_back();
            grave.release(grave.memory);
        }
        pins_--;
        dismissed();
    }
    // Without memory for the note of it the block is left alone for good, which harms nobody.
    void bury(void *memory, void (*release)(void *)) noexcept {
        try {
            buried_.push_back({memory, release});
        } catch (const std::bad_alloc &) {
        }
    }
    // The model is gone: the last pin takes the yard with it.
    void abandon() noexcept {
        abandoned_ = true;
        dismissed();
    }

  private:
    struct Grave {
        void *memory;
        void (*release)(void *);
    };

    void dismissed() noexcept {
        if (abandoned_ && pins_ == 0)
            delete this;
    }

    int pins_ = 0;
    bool abandoned_ = false;
    std::vector<Grave> buried_;
};

// A model's hold on its yard. It is declared before the buffers, which need it to the end.
class YardHolder {
  public:
    YardHolder() : yard_(new Yard) {}
    YardHolder(const YardHolder &) = delete;
    YardHolder &operator=(const YardHolder &) = delete;
    ~YardHolder() { yard_->abandon(); }
    Yard *get() const { return yard_; }

  private:
    Yard *yard_;
};

} // namespace store
