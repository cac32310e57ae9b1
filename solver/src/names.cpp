// names.cpp: names kept as blocks, made as text on demand, and found by an index on demand.
#include "names.h"

#include "failure.h"
#include "name_hash.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>

namespace store {

namespace {

constexpr int kMaxDimensions = 64; // NumPy's limit

void appendnumber(int64_t value, std::string &out) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

void checkshape(int64_t n, const TRVnames &names) {
    requirepointer("names", names.prefix, 1);
    requirepointer("names", names.shape, names.ndim);
    if (names.ndim < 0 || names.ndim > kMaxDimensions)
        failf(TRV_ERROR_INVALID_ARGUMENT, "names: a shape of %d dimensions", names.ndim);
    int64_t product = 1;
    for (int i = 0; i < names.ndim; i++) {
        if (names.shape[i] < 0 || (names.shape[i] > 0 && product > INT32_MAX / names.shape[i]))
            product = -1;
        if (product < 0)
            break;
        product *= names.shape[i];
    }
    if (product != n)
        failf(TRV_ERROR_INVALID_ARGUMENT, "names: the shape has %" PRId64 " elements where %" PRId64 " are added",
              product, n);
}

void checklist(int64_t n, const TRVnames &names) {
    requirepointer("names", names.offset, 1);
    for (int64_t i = 0; i < n; i++)
        if (names.offset[i] < 0 || names.offset[i + 1] < names.offset[i])
            failf(TRV_ERROR_INVALID_ARGUMENT, "names: offset %" PRId64 " decreases", i + 1);
    requirepointer("names", names.text, names.offset[n]);
    requirenonull("names", names.text + names.offset[0], names.offset[n] - names.offset[0]);
}

} // namespace

void Names::add(int32_t first, int64_t n, const TRVnames *names) {
    if (!names || names->form == TRV_NAMES_NONE || n == 0)
        return;
    if (names->form == TRV_NAMES_SHAPE) {
        checkshape(n, *names);
        addshape(first, n, *names);
    } else if (names->form == TRV_NAMES_LIST) {
        checklist(n, *names);
        addlist(first, n, names->text, names->offset);
    } else {
        failf(TRV_ERROR_INVALID_ARGUMENT, "names: unknown form %d", names->form);
    }
}

void Names::addshape(int32_t first, int64_t n, const TRVnames &names) {
    size_t length = std::strlen(names.prefix);
    if (length == 0)
        return;
    if (names.ndim == 0) {
        int64_t offset[2] = {0, static_cast<int64_t>(length)};
        addlist(first, 1, names.prefix, offset);
        return;
    }
    Block block{first, static_cast<int32_t>(n), names.prefix, {}, {}, {}};
    block.shape.assign(names.shape, names.shape + names.ndim);
    blocks_.push_back(std::move(block));
}

// The list that ends at this id (a few elements without a name in between get empty ones), or a new one.
Names::Block &Names::listat(int32_t first) {
    if (!blocks_.empty()) {
        Block &last = blocks_.back();
        int32_t end = last.first + last.count;
        if (!last.offset.empty() && first - end < 16) {
            int64_t length = last.offset[last.count];
            last.offset.pad(last.offset.size() + (first - end), length);
            last.count += first - end;
            return last;
        }
    }
    Block block{first, 0, {}, {}, {}, {}};
    block.offset.push(0);
    blocks_.push_back(std::move(block));
    return blocks_.back();
}

void Names::addlist(int32_t first, int64_t n, const char *text, const int64_t *offset) {
    Block &block = listat(first);
    int64_t length = offset[n] - offset[0], base = block.offset[block.count];
    char *to = block.text.room(length);
    int64_t *next = block.offset.room(n);
    if (length)
        std::memcpy(to, text + offset[0], length);
    for (int64_t i = 1; i <= n; i++)
        next[i - 1] = base + (offset[i] - offset[0]);
    block.text.grow(length);
    block.offset.grow(n);
    block.count += static_cast<int32_t>(n);
}

const Names::Block *Names::blockof(int32_t id) const {
    auto after =
        std::upper_bound(blocks_.begin(), blocks_.end(), id, [](int32_t i, const Block &b) { return i < b.first; });
    if (after == blocks_.begin())
        return nullptr;
    const Block *block = &*(after - 1);
    return id - block->first < block->count ? block : nullptr;
}

void Names::appenddefault(int32_t id, std::string &out) const {
    out += letter_;
    appendnumber(id, out);
}

void Names::append(int32_t id, std::string &out) const {
    if (!renamed_.empty()) {
        auto found = renamed_.find(id);
        if (found != renamed_.end())
            return found->second.empty() ? appenddefault(id, out) : void(out += found->second);
    }
    const Block *block = blockof(id);
    if (!block)
        return appenddefault(id, out);
    int64_t rest = id - block->first;
    if (!block->offset.empty()) {
        int64_t from = block->offset[rest], to = block->offset[rest + 1];
        return from == to ? appenddefault(id, out) : void(out.append(block->text.data() + from, to - from));
    }
    int64_t subscripts[kMaxDimensions];
    size_t ndim = block->shape.size();
    for (size_t axis = ndim; axis-- > 0; rest /= block->shape[axis])
        subscripts[axis] = rest % block->shape[axis];
    out += block->prefix;
    for (size_t axis = 0; axis < ndim; axis++) {
        out += axis ? ',' : '[';
        appendnumber(subscripts[axis], out);
    }
    out += ']';
}

void Names::rename(const std::vector<int32_t> &ids, std::vector<std::string> names) {
    std::vector<int32_t> added;
    added.reserve(ids.size());
    try {
        for (int32_t id : ids)
            if (renamed_.try_emplace(id).second)
                added.push_back(id);
    } catch (...) {
        for (int32_t id : added)
            renamed_.erase(id);
        throw;
    }
    for (size_t i = 0; i < ids.size(); i++)
        renamed_.find(ids[i])->second.swap(names[i]);
    index_.free();
    indexed_ = 0;
}

void Names::enter(Entry entry) noexcept {
    size_t mask = index_.size() - 1, at = entry.hash & mask;
    while (index_[at].id >= 0)
        at = (at + 1) & mask;
    index_[at] = entry;
}

void Names::extendindex(int32_t count) {
    size_t wanted = 16;
    while (wanted < 2 * static_cast<size_t>(count))
        wanted *= 2;
    if (wanted > index_.size()) {
        Buffer<Entry> larger;
        larger.pad(wanted, Entry{0, -1});
        index_.swap(larger);
        indexed_ = 0; // entered anew in the order of ids, so that of equal names the first one is met first
    }
    std::string text;
    for (; indexed_ < count; indexed_++) {
        text.clear();
        append(indexed_, text);
        enter(Entry{trv::name_hash(text), indexed_});
    }
}

int32_t Names::find(const Registry &registry, std::string_view name) {
    extendindex(registry.count());
    uint32_t hash = trv::name_hash(name);
    std::string text;
    for (size_t mask = index_.size() - 1, at = hash & mask; index_[at].id >= 0; at = (at + 1) & mask) {
        if (index_[at].hash != hash || registry.slot(index_[at].id) < 0)
            continue;
        text.clear();
        append(index_[at].id, text);
        if (text == name)
            return index_[at].id;
    }
    return -1;
}

namespace {

char letterof(int kind) {
    return kind == TRV_VAR         ? 'C'
           : kind == TRV_CONSTR    ? 'R'
           : kind == TRV_QCONSTR   ? 'Q'
           : kind == TRV_GENCONSTR ? 'G'
                                   : 'N';
}

} // namespace

std::string calledinblock(int kind, int32_t first, int64_t n, int64_t i, const TRVnames *names) {
    Names block(letterof(kind));
    block.add(first, n, names);
    std::string text = std::string("the ") + kindname(kind) + " ";
    block.append(static_cast<int32_t>(first + i), text);
    const bool named = names && names->form != TRV_NAMES_NONE;
    if (!named && n > 1)
        text += " (element " + std::to_string(i) + " of " + std::to_string(n) + ")";
    return text;
}

} // namespace store
