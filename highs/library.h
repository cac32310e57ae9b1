// library.h: HiGHS' C interface, opened at run time.
//
//   open_library("/.../highs_dist/lib/libhighs.so");     once; throws LibraryError with the reason
//   library().passLp(highs, ...)                         Highs_passLp
//
// The functions keep the types of HiGHS' own header, so a call that no longer fits does not compile. Nothing links
// against HiGHS: the extension can be imported without it, and a missing engine is an ordinary error.
#pragma once

#include "interfaces/highs_c_api.h"

#include <stdexcept>
#include <string>

namespace tarvopy::highs {

struct LibraryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

#define TARVOPY_HIGHS_FUNCTIONS(F)                                                                                     \
    F(create)                                                                                                          \
    F(destroy)                                                                                                         \
    F(version)                                                                                                         \
    F(versionMajor)                                                                                                    \
    F(versionMinor)                                                                                                    \
    F(getSizeofHighsInt)                                                                                               \
    F(passLp)                                                                                                          \
    F(passMip)                                                                                                         \
    F(getNumCol)                                                                                                       \
    F(getNumRow)                                                                                                       \
    F(getNumNz)                                                                                                        \
    F(getHessianNumNz)                                                                                                 \
    F(getLp)                                                                                                           \
    F(changeColsBoundsBySet)                                                                                           \
    F(changeColsIntegralityByRange)                                                                                    \
    F(changeColsCostBySet)                                                                                             \
    F(changeRowsBoundsBySet)                                                                                           \
    F(changeRowsBoundsByRange)                                                                                         \
    F(changeCoeff)                                                                                                     \
    F(changeObjectiveOffset)                                                                                           \
    F(changeObjectiveSense)                                                                                            \
    F(getOptionType)                                                                                                   \
    F(setBoolOptionValue)                                                                                              \
    F(setIntOptionValue)                                                                                               \
    F(setDoubleOptionValue)                                                                                            \
    F(setStringOptionValue)                                                                                            \
    F(getBoolOptionValue)                                                                                              \
    F(getIntOptionValue)                                                                                               \
    F(getDoubleOptionValue)                                                                                            \
    F(getStringOptionValue)                                                                                            \
    F(resetOptions)                                                                                                    \
    F(setSolution)                                                                                                     \
    F(setSparseSolution)                                                                                               \
    F(setCallback)                                                                                                     \
    F(startCallback)                                                                                                   \
    F(stopCallback)                                                                                                    \
    F(zeroAllClocks)                                                                                                   \
    F(run)                                                                                                             \
    F(getRunTime)                                                                                                      \
    F(getModelStatus)                                                                                                  \
    F(getIntInfoValue)                                                                                                 \
    F(getInt64InfoValue)                                                                                               \
    F(getDoubleInfoValue)                                                                                              \
    F(getSolution)                                                                                                     \
    F(readModel)                                                                                                       \
    F(resetGlobalScheduler)

struct Library {
#define TARVOPY_HIGHS_FIELD(name) decltype(&Highs_##name) name = nullptr;
    TARVOPY_HIGHS_FUNCTIONS(TARVOPY_HIGHS_FIELD)
#undef TARVOPY_HIGHS_FIELD
};

// Opens the library once for the process; a second call keeps what is open. The interpreter's lock guards it.
void open_library(const std::string &path);
bool library_is_open();
// Only after open_library.
const Library &library();

} // namespace tarvopy::highs
