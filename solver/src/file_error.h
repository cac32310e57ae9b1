// What the file readers and writers throw, and how their texts are put together.
//
//     throw FileError{TRV_ERROR_FILE, joined("cannot open ", shown(path))};      about the file as a whole
//     throw LineError{joined(shown("1.2.3"), " is not a number")};               about the line in hand
//
// A LineError knows no place: whoever drives the lines catches it and adds path and line number. Nothing thrown here
// crosses the C interface; guarded() in model_files.h turns all of it into a code and a message.
#ifndef TARVO_FILE_ERROR_H
#define TARVO_FILE_ERROR_H

#include <cstdint>
#include <string>
#include <string_view>

#include "tarvo.h"

namespace trv {

struct FileError {
    int code;
    std::string text;
};

struct LineError {
    std::string text;
    int code = TRV_ERROR_SYNTAX;
    std::int64_t line = 0; // where it is not the line in hand
};

template <typename... Pieces> std::string joined(const Pieces &...pieces) {
    std::string text;
    (text.append(pieces), ...);
    return text;
}

// The text in quotes as an error message can carry it: control bytes and broken UTF-8 escaped, long texts cut.
std::string shown(std::string_view text);

// The same, whole: for paths.
std::string in_quotes(std::string_view path);

// For a byte below the blank that no line may hold.
[[noreturn]] void refuse_control(char c);

// "path, line 7: what"
std::string placed(std::string_view path, std::int64_t line, std::string_view what);

// After a call of the store's own functions.
inline void check(TRVmodel *model, int code) {
    if (code != TRV_OK) {
        throw FileError{code, TRVgeterrormsg(model)};
    }
}

} // namespace trv
#endif
