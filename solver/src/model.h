// model.h: TRVmodel, all parts of one model together, and the few steps that concern several of them.
#pragma once

#include "changes.h"
#include "columns.h"
#include "gens.h"
#include "nlrows.h"
#include "pins.h"
#include "qrows.h"
#include "rows.h"
#include "solution.h"
#include "tarvo.h"

#include <string>

struct TRVmodel {
    store::YardHolder yard, termyard; // first: its buffers give their memory back through them
    std::string name;
    store::Columns columns;
    store::Rows rows;
    store::QRows qrows;
    store::QObjective qobjective;
    store::NlRows nlrows;
    store::NlObjective nlobjective;
    store::Gens gens;
    store::Uses uses; // in tapes and general constraints
    double objconstant = 0.0;
    int sense = TRV_MINIMIZE;
    store::Changes changes;
    store::Solution solution;
    bool changed = false;                 // since the last solution
    std::string error;                    // of the last failed call
    std::string text;                     // what TRVgetstrattr returned last
    int (*stop)(void *context) = nullptr; // see TRVsetstop
    void *stopcontext = nullptr;

    store::Registry &registry(int kind);
    const store::Registry &registry(int kind) const;
    store::Names &names(int kind);

    // Each kind once.
    void remove(int32_t count, const TRVremoval *removals);
    void update();
    // With the terms of a quadratic part, in the stored form, and a checked tape.
    void setobjective(int64_t n, const int32_t *var, const double *coef, store::QuadTerms &&quadratic,
                      store::NlObjective &&nonlinear, double constant, int newsense);
    // Terms of variables that were removed while pending are gone: before terms are shown or counted.
    void purge();
    void getcoefficients(int64_t n, const int32_t *rowids, const int32_t *vars, double *out);
    void setcoefficients(int64_t n, const int32_t *rowids, const int32_t *vars, const double *values);

    // One value changes: written down for the engine, and the solution is no longer the model's. Equal values change
    // nothing.
    template <class T> void write(T &place, T value, store::Changes::Kind kind, int32_t slot) {
        if (place == value)
            return;
        place = value;
        touched(kind, slot);
    }
    void write(store::Values &array, int32_t slot, double value, store::Changes::Kind kind) {
        if (array[slot] == value)
            return;
        array.set(slot, value);
        touched(kind, slot);
    }
    void touched(store::Changes::Kind kind, int32_t slot);
    void writeqrhs(int32_t slot, double value);
    void setobjconstant(double value);
    void setsense(int value);

  private:
    void requireunused(int64_t n, const int32_t *variables, const store::Buffer<int32_t> &leavingrows,
                       const store::Buffer<int32_t> &leavinggens);
    void variablesremoved();
    void replacetape(store::NlObjective &&nonlinear) noexcept;
    void writecosts(int64_t n, const int32_t *var, const double *coef);
    void sumcosts(int64_t n, const int32_t *var, const double *coef);
};
