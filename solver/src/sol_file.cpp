// Solution files: one "name value" a line, "#" begins a comment line.
//
//     # Objective value = 12.5
//     x[0] 3
//     a name with blanks 1.5          the value is the last word, the name is all before it
#include <cmath>
#include <vector>

#include "file_stream.h"
#include "model_files.h"
#include "model_names.h"
#include "stop.h"
#include "text_scan.h"

namespace trv {
namespace {

void check_writable(const ModelNames &names) {
    for (std::int32_t i = 0; i < names.size(); ++i) {
        check_stop_at(i);
        const std::string_view name = names[i];
        if (name.empty() || has_control(name) || name.front() == '#' || trimmed(name).size() != name.size()) {
            throw FileError{TRV_ERROR_UNSUPPORTED,
                            joined("solution file: the name ", shown(name),
                                   " is empty, begins with #, or has control characters or blanks at "
                                   "an end")};
        }
    }
}

void write_solution(TRVmodel *model, const std::string &path) {
    int nvars;
    check(model, TRVgetintattr(model, "NumVars", &nvars));
    ModelNames names(model, TRV_VAR, nvars);
    std::vector<std::int32_t> ids(static_cast<std::size_t>(nvars));
    for (std::int32_t i = 0; i < nvars; ++i) {
        ids[static_cast<std::size_t>(i)] = names.id(i);
    }
    std::vector<double> x(ids.size());
    check(model, TRVgetdbls(model, "X", nvars, ids.data(), 0, x.data()));
    names.refuse_doubled("solution file: ", "variable");
    check_writable(names);
    FileWriter file(path);
    double objective;
    if (TRVgetdblattr(model, "ObjVal", &objective) == TRV_OK) {
        file.put("# Objective value = ");
        file.put_number(objective);
        file.put("\n");
    }
    for (std::int32_t i = 0; i < nvars; ++i) {
        file.put(names[i]);
        file.put(" ");
        file.put_number(x[static_cast<std::size_t>(i)]);
        file.put("\n");
    }
    file.commit();
}

struct Starts {
    std::vector<std::int32_t> id;
    std::vector<double> value;
    std::vector<char> seen; // by id
};

void read_line(TRVmodel *model, std::string_view line, std::string &name, Starts &starts) {
    const std::size_t blank = line.find_last_of(" \t");
    if (blank == std::string_view::npos) {
        throw LineError{joined("no value behind the name: ", shown(line))};
    }
    double value;
    const std::string_view number = line.substr(blank + 1);
    if (!scan_number(number, value)) {
        throw LineError{joined(shown(number), " is not a number")};
    }
    if (std::fabs(value) >= TRV_INFINITY) {
        throw LineError{joined("the value ", shown(number), " is infinite (from 1e20 on)")};
    }
    name = trimmed(line.substr(0, blank));
    std::int32_t id = -1;
    if (name.find('\0') == std::string::npos) {
        check(model, TRVfindname(model, TRV_VAR, name.c_str(), &id));
    }
    if (id < 0) {
        throw LineError{joined("unknown variable ", shown(name))};
    }
    char &seen = starts.seen[static_cast<std::size_t>(id)];
    if (seen) {
        throw LineError{joined("a second value of ", shown(name))};
    }
    seen = 1;
    starts.id.push_back(id);
    starts.value.push_back(value);
}

void read_solution(TRVmodel *model, const std::string &path) {
    LineReader lines(path);
    Starts starts;
    starts.seen.resize(static_cast<std::size_t>(TRVidcount(model, TRV_VAR)));
    std::string name;
    try {
        for (std::string_view line; lines.next(line);) {
            line = trimmed(line);
            if (!line.empty() && line.front() != '#') {
                read_line(model, line, name, starts);
            }
        }
    } catch (const LineError &error) {
        throw FileError{error.code, placed(path, lines.number(), error.text)};
    }
    const auto count = static_cast<std::int64_t>(starts.id.size());
    if (count > 0) {
        check(model, TRVsetdbls(model, "Start", count, starts.id.data(), 0, starts.value.data(), 1));
    }
}

} // namespace
} // namespace trv

extern "C" int TRVwritesolution(TRVmodel *model, const char *path) {
    return trv::guarded(model, path, [&] { trv::write_solution(model, path); });
}

extern "C" int TRVreadsolution(TRVmodel *model, const char *path) {
    return trv::guarded(model, path, [&] { trv::read_solution(model, path); });
}
