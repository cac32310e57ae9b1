// One line of an MPS section taken apart, the same record whichever form the file has.
//
//   free form    fields between blanks              " UP BND x 4"
//   fixed form   fields in columns 2-3, 5-12, 15-22, 25-36, 40-47, 50-61, so that a name may hold blanks
//
// Every function throws LineError when the line does not have the form. Records point into the line.
#ifndef TARVO_MPS_FIELDS_H
#define TARVO_MPS_FIELDS_H

#include <string_view>

namespace trv {

enum class MpsForm { free, fixed };

struct MpsRowLine {
    std::string_view type, name;
};

struct MpsPair {
    std::string_view name, number;
};

// COLUMNS: head is the column, names are rows. RHS and RANGES: head is the set, empty if it is left out.
struct MpsPairsLine {
    std::string_view head;
    MpsPair pair[2];
    int npairs = 0;
    std::string_view marker; // COLUMNS only: "'INTORG'" and the like, npairs is 0 then
};

struct MpsBoundLine {
    std::string_view type, set, column, number; // set and number are empty if they are left out
    // Free form, three fields: " FR BND x" or " BV x 1"? Only the columns' names tell.
    bool maybe_without_set = false;
};

// SOS: a set begins with its type, "S1" or "S2", and its name; a member has no type, but a weight.
struct MpsSetLine {
    std::string_view type, name, weight;
};

MpsSetLine mps_set_line(MpsForm form, std::string_view line);
MpsRowLine mps_row_line(MpsForm form, std::string_view line);
MpsPairsLine mps_column_line(MpsForm form, std::string_view line);
MpsPairsLine mps_pairs_line(MpsForm form, std::string_view line); // RHS, RANGES
MpsBoundLine mps_bound_line(MpsForm form, std::string_view line);

// The single word of a line in OBJSENSE and the like.
std::string_view mps_word_line(std::string_view line);

// A line of COLUMNS that makes sense in both forms, with different meanings: the name "A R1 5" of eight columns at most
// reads as the name "A" with a coefficient 5 in row "R1".
bool mps_ambiguous_column(std::string_view line);

// Checks the bytes of a section header's line.
void mps_check_header(std::string_view line);

} // namespace trv
#endif
