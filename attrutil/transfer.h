// Whole-array attribute transfer by id: values between Python (lists, NumPy arrays, single values) and the store's
// arrays.
//
// Reading gives a list or an array; writing first turns everything into plain C++ arrays (Values), which may run Python
// code, and then asks for the store and hands over in one call that acts as a whole or not at all.
#pragma once

#include "collaborators/core.h"

#include <string>
#include <vector>

namespace tarvopy::attrutil {

using pysupport::Ref;

extern const CoreApi *core;

// The attribute; AttributeError "'tarvopy.Var' object has no attribute 'RHS'" for an unknown name and one of another
// kind.
const TRVattrinfo *find_attribute_of(int kind, const char *name);
// AttributeError "Attribute 'X' cannot be set".
void check_settable(const TRVattrinfo *info);

TRVmodel *open_store(PyObject *model);
void check_store(TRVmodel *store, int code);

// Elements by id: either ids, or first, first + 1, ... where they are consecutive, which the store reads in one block.
struct Ids {
    int64_t size;
    const int32_t *ids; // NULL: consecutive
    int32_t first;
    Ids(const int32_t *data, int64_t n);
};

Ref read_list(TRVmodel *store, const TRVattrinfo *info, const Ids &ids);
// A new C-contiguous array of the given shape.
Ref read_array(TRVmodel *store, const TRVattrinfo *info, const Ids &ids, PyObject *shape_of);

// What is to be written: as many values as elements, or one for all.
class Values {
  public:
    // source: a list, a NumPy array, or a single str or number. count: the number of elements.
    Values(const TRVattrinfo *info, PyObject *source, int64_t count);
    void write(TRVmodel *store, const Ids &ids) const;

  private:
    void read_item(PyObject *item);
    void read_double(PyObject *item);
    void read_text(PyObject *item);
    void write_texts(TRVmodel *store, const Ids &ids) const;

    const TRVattrinfo *info_;
    Ref array_; // float64 values that stay where they are
    std::vector<double> doubles_;
    std::string text_; // characters, or strings one after the other
    std::vector<int64_t> offsets_{0};
    int64_t size_ = 0;
};

} // namespace tarvopy::attrutil
