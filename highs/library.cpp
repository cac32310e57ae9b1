#include "library.h"

#include <dlfcn.h>

namespace tarvopy::highs {

namespace {

Library table;
bool opened = false;

void *symbol(void *handle, const char *name) {
    void *found = dlsym(handle, name);
    if (!found)
        throw LibraryError(std::string("the HiGHS library has no function ") + name);
    return found;
}

Library resolve(void *handle) {
    Library functions;
#define TARVOPY_HIGHS_RESOLVE(name)                                                                                    \
    functions.name = reinterpret_cast<decltype(functions.name)>(symbol(handle, "Highs_" #name));
    TARVOPY_HIGHS_FUNCTIONS(TARVOPY_HIGHS_RESOLVE)
#undef TARVOPY_HIGHS_RESOLVE
    return functions;
}

// The structs that callbacks receive are laid out by the header this file was compiled against, so both must be of one
// make.
void refuse_other_layouts(const Library &functions) {
    void *highs = functions.create();
    HighsInt bytes = functions.getSizeofHighsInt(highs);
    functions.destroy(highs);
    if (bytes != static_cast<HighsInt>(sizeof(HighsInt)))
        throw LibraryError("the HiGHS library counts with integers of " + std::to_string(bytes) + " bytes, expected " +
                           std::to_string(sizeof(HighsInt)));
    if (functions.versionMajor() != HIGHS_VERSION_MAJOR || functions.versionMinor() != HIGHS_VERSION_MINOR)
        throw LibraryError(std::string("the HiGHS library is version ") + functions.version() + ", expected " +
                           std::to_string(HIGHS_VERSION_MAJOR) + "." + std::to_string(HIGHS_VERSION_MINOR) + ".x");
}

} // namespace

void open_library(const std::string &path) {
    if (opened)
        return;
    void *handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle)
        throw LibraryError(dlerror());
    try {
        Library functions = resolve(handle);
        refuse_other_layouts(functions);
        table = functions;
        opened = true;
    } catch (...) {
        dlclose(handle);
        throw;
    }
}

bool library_is_open() {
    return opened;
}

const Library &library() {
    return table;
}

} // namespace tarvopy::highs
