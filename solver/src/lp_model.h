// LP files as a whole: reading into a FileModel, and writing.
#ifndef TARVO_LP_MODEL_H
#define TARVO_LP_MODEL_H

#include "file_model.h"

namespace trv {

// Reads and checks the whole file; throws FileError.
FileModel read_lp(const std::string &path);

// Throws FileError, before a byte is written, for what LP files cannot say.
void write_lp(TRVmodel *model, const std::string &path);

} // namespace trv
#endif
