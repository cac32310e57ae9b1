// What an MPS file says, before any of it reaches a model: rows as the file numbers them (the objective is one of
// them), columns with their entries. Complete or not at all, so that a damaged file changes nothing.
#ifndef TARVO_MPS_MODEL_H
#define TARVO_MPS_MODEL_H

#include <cstdint>
#include <string>
#include <vector>

#include "name_table.h"

namespace trv {

// A range as the file gives it. A text with more digits than a double holds keeps them in `extended`: they are what
// brings both sides of a row back exactly (see mps_sides.h).
struct MpsRange {
    double value;
    long double extended;
};

struct MpsModel {
    std::string name;
    int sense = TRV_MINIMIZE;
    double constant = 0;
    std::int32_t objective = -1; // the row that is the objective, -1 if there is none

    NameTable rows;
    std::vector<char> row_type;       // 'N' 'E' 'L' 'G'
    std::vector<double> lower, upper; // filled at the end of the file

    NameTable columns;
    std::vector<double> cost, lb, ub;
    std::vector<char> vtype;
    std::vector<std::int64_t> start; // one a column: its first entry
    std::vector<std::int32_t> entry_row;
    std::vector<double> entry_value;
};

// Reads and checks the whole file; throws FileError.
MpsModel read_mps(const std::string &path);

// Hands the model over in bulk. Takes it, for its arrays are let go as they are used up.
void store_mps(TRVmodel *target, MpsModel source);

// Throws FileError, before a byte is written, for what MPS cannot say.
void write_mps(TRVmodel *model, const std::string &path);

} // namespace trv
#endif
