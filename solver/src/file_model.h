// What a model file says, before any of it reaches a model: rows as the file numbers them, with their linear terms by
// rows or by columns, whichever way the format goes. Complete or not at all, so that a damaged file changes nothing.
#ifndef TARVO_FILE_MODEL_H
#define TARVO_FILE_MODEL_H

#include <cstdint>
#include <string>
#include <vector>

#include "name_table.h"

namespace trv {

// value[k] times the product of two columns.
struct QuadTerms {
    std::vector<std::int32_t> first, second;
    std::vector<double> value;
    std::size_t size() const { return value.size(); }
    void add(std::int32_t one, std::int32_t other, double factor) {
        first.push_back(one);
        second.push_back(other);
        value.push_back(factor);
    }
};

// The rows that hold only where a column has a value, 0 or 1.
struct Indicators {
    std::vector<std::int32_t> row, column;
    std::vector<double> value;
    std::size_t size() const { return row.size(); }
};

// Special ordered sets, each with its columns and their weights.
struct OrderedSets {
    NameTable names;
    std::vector<int> type; // TRV_GEN_SOS1 or TRV_GEN_SOS2
    std::vector<std::int64_t> start;
    std::vector<std::int32_t> column;
    std::vector<double> weight;

    void add(int newtype, std::string_view name);
    void add_member(std::int32_t member, double its_weight);
    // Why the last set is none, empty if all is well: the store refuses such sets, but knows no lines.
    std::string flaw_of_last(const NameTable &columns) const;
};

struct FileModel {
    std::string name;
    int sense = TRV_MINIMIZE;
    double constant = 0;
    std::int32_t objective = -1; // the row that is the objective, -1 where it is none of the rows

    NameTable rows;
    std::vector<char> row_type; // 'N' 'E' 'L' 'G', or 'R' for two sides
    std::vector<double> lower, upper;

    NameTable columns;
    std::vector<double> cost, lb, ub;
    std::vector<char> vtype;

    // The linear terms of all rows. By columns: start has one number a column, its first entry, and entry holds rows.
    // By rows: one number a row, and entry holds columns.
    bool by_rows = false;
    std::vector<std::int64_t> start;
    std::vector<std::int32_t> entry;
    std::vector<double> entry_value;

    QuadTerms qobjective;
    // The rows that are quadratic, in any order, and where the terms of each begin.
    std::vector<std::int32_t> qrow;
    std::vector<std::int64_t> qstart;
    QuadTerms qterms;

    Indicators indicators;
    OrderedSets sets;
};

// Hands the model over in bulk. Takes it, for its arrays are let go as they are used up.
void store_model(TRVmodel *target, FileModel source);

} // namespace trv
#endif
