// A tape written as an expression of a .nl file, which wants operators before their operands.
//
//     NlTape tape(place_by_id);
//     tape.refusal(row)                why the file cannot say it, "" where it can
//     tape.put(out, row)               CONSTANT x MULTIPLY  ->  o2 n2.5 v0
//
// Readers know no log2, tan, tanh and logistic: these are written through logarithm, sine and cosine, and exponential.
// Parts made of constants alone become one number: readers know a power by its exponent being one.
// Sums and differences inside of sums become one long sum, since a sum that was built term by term would nest as deep
// as it is long, and readers recurse.
#ifndef TARVO_NL_TAPE_H
#define TARVO_NL_TAPE_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "nl_stream.h"
#include "tape.h"

namespace trv {

class NlTape {
  public:
    // place_by_id: of each variable in the file
    explicit NlTape(const std::vector<std::int32_t> &place_by_id) : place_(place_by_id) {}

    std::string refusal(const store::Tape &tape);
    void put(NlStream &out, const store::Tape &tape);

  private:
    // What is known of the expression that ends with an entry: where it begins, how deep it nests in the file, in how
    // many summands it falls apart inside of a sum, and how deep tangents nest; its value where it is made of constants
    // alone, else NaN.
    struct Part {
        std::int32_t first, depth, summands, tangents;
        double value;
    };
    // What is still to be written.
    struct Item {
        enum Kind { kPart, kSummands, kOperation, kNumber } kind;
        std::int32_t value; // entry, or the file's code of an operation
        double number;
    };

    static std::vector<store::Tape> pieces(const store::Tape &tape);
    Part part_of_sum(const store::Tape &piece);
    Part whole(const store::Tape &tape, const std::vector<store::Tape> &parts);
    void put_items(NlStream &out, const store::Tape &tape, const Item &first);
    void survey(const store::Tape &tape);
    void survey_operation(const store::Tape &tape, std::int32_t entry);
    void fold(int operation, std::int32_t entry, Part &part);
    void put_part(NlStream &out, const store::Tape &tape, std::int32_t entry);
    void put_operation(NlStream &out, std::int32_t entry, int operation);
    void put_sum(NlStream &out, const store::Tape &tape, std::int32_t entry, bool inside);
    void follow(std::initializer_list<Item> items);
    Item summand(const store::Tape &tape, std::int32_t entry) const;
    bool falls_apart(const store::Tape &tape, std::int32_t entry) const;

    const std::vector<std::int32_t> &place_;
    std::vector<Part> parts_;
    std::vector<Item> items_;
    double broken_base_ = 1; // of a power that no reader takes; 1 where there is none
};

} // namespace trv
#endif
