// buffer.h: Buffer<T>, a growing array of plain values that never fills what it grows by.
//
//   Buffer<double> lb;
//   double *end = lb.room(n);  write end[0..n);  lb.grow(n);
//                                        nothing is seen until grow, so a failure leaves no trace
//
// std::vector would write zeros over memory that is overwritten at once, which costs as much as the real writing (and
// touches pages that nobody needs yet). Growing goes through blocks::resize, which moves large blocks by remapping
// pages instead of copying.
#pragma once

#include "blocks.h"
#include "pins.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace store {

// memmove by elements; nothing to move may be nowhere.
template <class T> void moveterms(T *to, const T *from, size_t n) {
    if (n)
        std::memmove(to, from, n * sizeof(T));
}

template <class T> class Buffer {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    Buffer() = default;
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    Buffer(Buffer &&other) noexcept { swap(other); }
    Buffer &operator=(Buffer &&other) noexcept {
        Buffer taken(std::move(other));
        swap(taken);
        return *this;
    }
    ~Buffer() { giveback(); }

    // Memory of somebody else, only to be read. Growing copies it.
    static Buffer borrow(const T *data, size_t n) {
        Buffer buffer;
        buffer.data_ = const_cast<T *>(data);
        buffer.size_ = n;
        return buffer;
    }
    // From here on memory that views may point into goes to the yard while a pin is held.
    void guard(Yard *yard) { yard_ = yard; }

    T *data() { return data_; }
    const T *data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    T &operator[](size_t i) { return data_[i]; }
    const T &operator[](size_t i) const { return data_[i]; }
    T *end() { return data_ + size_; }

    // Capacity for n elements in all, no more.
    void reserve(size_t n) {
        if (n > capacity_)
            reallocate(n);
    }
    // Where n more elements can be written; the size stays. The first block is taken exactly as large as asked for.
    T *room(size_t n) {
        size_t wanted = size_ + n;
        if (wanted > capacity_) {
            size_t generous = capacity_ + capacity_ / 2;
            reallocate(wanted > generous ? wanted : generous);
        }
        written_ = std::max(written_, wanted);
        return data_ + size_;
    }
    // As room, where the n elements are 0 already. Memory that came from the system is, and stays untouched.
    T *zeros(size_t n) {
        if (!data_)
            takezeros(n);
        const size_t before = dirty();
        T *p = room(n);
        const size_t now = std::max(before, dirtyblock());
        if (now > size_)
            std::fill_n(p, std::min(n, now - size_), T{});
        return p;
    }
    void grow(size_t n) noexcept { size_ += n; }
    void cut(size_t n) noexcept { size_ = n; }
    void resize(size_t n) {
        if (n > size_)
            room(n - size_);
        size_ = n;
    }
    void push(T value) {
        *room(1) = value;
        size_++;
    }
    // Grows to n elements, the new ones having this value. Never shrinks.
    void pad(size_t n, T value) {
        if (n <= size_)
            return;
        T *p = room(n - size_);
        for (size_t i = 0; i < n - size_; i++)
            p[i] = value;
        size_ = n;
    }
    // Gives back what is not used, where that is worth a call to the allocator; a failure to do so does not matter.
    void shrink() noexcept {
        if (capacity_ < size_ + 4096 || size_ == 0 || pinned())
            return;
        if (void *p = blocks::resize(data_, size_ * sizeof(T))) {
            data_ = static_cast<T *>(p);
            capacity_ = size_;
        }
    }
    void free() noexcept { Buffer().swap(*this); }
    // The memory, which the taker gives back with blocks::give.
    T *release() noexcept {
        T *p = data_;
        data_ = nullptr;
        size_ = capacity_ = written_ = 0;
        return p;
    }
    void swap(Buffer &other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
        std::swap(written_, other.written_);
        std::swap(yard_, other.yard_);
    }

  private:
    bool pinned() const { return yard_ && yard_->pinned(); }
    void giveback() noexcept {
        if (!capacity_)
            return;
        if (pinned())
            yard_->bury(data_, blocks::give);
        else
            blocks::give(data_);
    }
    void takezeros(size_t n) {
        void *p = n > SIZE_MAX / 2 / sizeof(T) ? nullptr : blocks::zeros(n * sizeof(T));
        if (!p)
            throw std::bad_alloc();
        data_ = static_cast<T *>(p);
        capacity_ = n;
    }
    // Elements that the block held something in when it was taken; what follows them is 0 unless written since.
    size_t dirtyblock() const {
        return capacity_ ? std::min(capacity_, (blocks::clean_from(data_) + sizeof(T) - 1) / sizeof(T)) : 0;
    }
    size_t dirty() const { return std::max(written_, dirtyblock()); }
    // The elements in a larger block. What was borrowed stays where it is.
    void *moved(size_t bytes) {
        if (capacity_ ? !pinned() : !data_)
            return blocks::resize(data_, bytes);
        void *p = blocks::take(bytes);
        if (p) {
            moveterms(static_cast<T *>(p), data_, capacity_ ? capacity_ : size_); // all of it, as resize does
            giveback();
        }
        return p;
    }
    void reallocate(size_t n) {
        if (n < 16)
            n = 16;
        if (n > SIZE_MAX / 2 / sizeof(T))
            throw std::bad_alloc();
        const size_t before = std::max(dirty(), size_);
        void *p = moved(n * sizeof(T));
        if (!p)
            throw std::bad_alloc();
        written_ = before;
        data_ = static_cast<T *>(p);
        capacity_ = n;
    }

    T *data_ = nullptr;
    size_t size_ = 0, capacity_ = 0;
    size_t written_ = 0; // where room was given so far, and what stood in former blocks
    Yard *yard_ = nullptr;
};

} // namespace store
