// MPS files as a whole: reading into a FileModel, and writing. (.mps, .qps and .SIF are one format.)
#ifndef TARVO_MPS_MODEL_H
#define TARVO_MPS_MODEL_H

#include "file_model.h"

namespace trv {

// A range as the file gives it. A text with more digits than a double holds keeps them in `extended`: they are what
// brings both sides of a row back exactly (see mps_sides.h).
struct MpsRange {
    double value;
    long double extended;
};

// Reads and checks the whole file; throws FileError.
FileModel read_mps(const std::string &path);

// Throws FileError, before a byte is written, for what MPS cannot say.
void write_mps(TRVmodel *model, const std::string &path);

} // namespace trv
#endif
