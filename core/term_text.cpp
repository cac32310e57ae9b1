// What expressions show of their terms: text and values.
#include "model_handle.h"
#include "scalars.h"
#include "term_lists.h"

#include <cmath>

namespace tarvopy::core {

std::string number_text(double value) {
    char *digits = PyOS_double_to_string(value, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr);
    if (!digits)
        throw std::bad_alloc();
    std::string text(digits);
    PyMem_Free(digits);
    return text;
}

void append_signed(std::string &text, double value) {
    if (text.empty()) {
        text += number_text(value);
    } else {
        text += std::signbit(value) ? " - " : " + ";
        text += number_text(std::fabs(value));
    }
}

Ref text_object(const std::string &utf8) {
    return check(PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "replace"));
}

std::vector<double> solution_of(Items items) {
    std::vector<int32_t> ids;
    std::vector<double> x(items.size());
    // One call to the store for each run of variables of one model; nearly always there is one.
    for (size_t begin = 0, end; begin < items.size(); begin = end) {
        ModelObject *model = as_scalar(items[begin])->cmodel;
        ids.clear();
        for (end = begin; end < items.size() && as_scalar(items[end])->cmodel == model; ++end)
            ids.push_back(as_scalar(items[end])->id);
        TRVmodel *store = open_store(model);
        check_store(store, TRVgetdbls(store, "X", static_cast<int64_t>(ids.size()), ids.data(), 0, x.data() + begin));
    }
    return x;
}

} // namespace tarvopy::core
