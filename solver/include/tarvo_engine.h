/* tarvo_engine.h: what takes a model of tarvo.h to an engine, and its solution back.
 *
 * Everything here speaks of positions, not of ids, so it is about the updated model. A solve runs through
 *
 *   TRVviewdata, TRVviewcolumns (or rows, cones, the .nl file)   the problem as arrays, most of them the store's own
 *   TRVpin, TRVpinmatrix                                         so that the arrays last as long as the engine runs
 *   TRVopensolution, TRVcommitsolution                           arrays to write into, then what they are worth
 *   TRVcheck, TRVoffenders                                       how well they hold, whatever the engine says
 *   TRVgetchanges                                                what to send before the next solve
 */
#ifndef TARVO_ENGINE_H
#define TARVO_ENGINE_H

#include "tarvo.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- what an engine reads ------------------------------------------------------------------------------- */
/* The model by position, pending elements left out (call TRVupdatemodel first). Pointers into the store, valid until
 * its next change: nothing is copied. */
typedef struct TRVdata {
    int32_t nvars, nrows;
    int64_t nnz;
    const double *lb, *ub, *obj;
    const char *vtype;           /* 'C' 'B' 'I' 'S' */
    const double *lower, *upper; /* of rows, +-INFINITY for none */
    double objconstant;
    int sense;           /* 1, -1 */
    int nintegral;       /* how many of vtype are not 'C' */
    int nsemi;           /* how many are 'S' */
    const double *start; /* NaN where none; NULL when nobody set one and no earlier solution is left */
    int64_t nqobj;       /* quadratic terms of the objective */
    int32_t nqrows;      /* quadratic rows */
    int32_t nqlinear;    /* how many of them hold no quadratic term (any more): linear rows in all but name */
    int64_t nqterms;     /* quadratic terms in rows */
    int64_t nqlinterms;  /* linear terms in quadratic rows */
    const char *qsense;  /* '<' '>' '=' */
    const double *qrhs;  /* +-INFINITY for none */
    int32_t nnlrows;     /* nonlinear rows */
    int64_t nnlcodes;    /* entries of their tapes */
    int64_t nnlobj;      /* entries of the objective's tape */
    const double *nllower, *nlupper; /* of nonlinear rows, +-INFINITY for none */
    int32_t ngens;                   /* general constraints */
} TRVdata;
TRV_API int TRVgetdata(TRVmodel *model, TRVdata *data);
/* As TRVgetdata, where arrays of one value throughout need not stand in memory: a step of 0 says that the pointer leads
 * to this value alone, which no pin keeps; else the step is 1. */
typedef struct TRVsteps {
    int lb, ub, lower, upper;
} TRVsteps;
TRV_API int TRVviewdata(TRVmodel *model, TRVdata *data, TRVsteps *steps);

/* The quadratic rows by position of rows and variables, freshly allocated; give back with TRVfreeqmatrix. Linear terms
 * of row i: index/value[start[i] .. start[i+1]]; quadratic ones: qvalue[k] * x[qvar1[k]] * x[qvar2[k]], each pair once,
 * qvar1 <= qvar2, k in qstart[i] .. qstart[i+1], in stored order. */
typedef struct TRVqmatrix {
    int64_t nrows, nnz, nquad;
    int32_t *start, *index;
    double *value;
    int32_t *qstart, *qvar1, *qvar2;
    double *qvalue;
} TRVqmatrix;
TRV_API int TRVgetqmatrix(TRVmodel *model, TRVqmatrix *matrix);
TRV_API void TRVfreeqmatrix(TRVqmatrix *matrix);

/* The general constraints by position of constraints and variables, each with its type; otherwise as TRVgens. Freshly
 * allocated; give back with TRVfreegenmatrix. */
typedef struct TRVgenmatrix {
    int64_t ngens, nargs, nnz, ndata;
    int32_t *type;
    int64_t *argptr, *ptr, *dataptr;
    int32_t *index;
    double *value, *constant, *data;
} TRVgenmatrix;
TRV_API int TRVgetgenmatrix(TRVmodel *model, TRVgenmatrix *matrix);
TRV_API void TRVfreegenmatrix(TRVgenmatrix *matrix);

/* Keeps the memory that the pointers of TRVgetdata and TRVopensolution (TRVpin) or of TRVviewrows and TRVviewcolumns
 * (TRVpinmatrix) lead to, as they stand at this call, readable until TRVunpin, whatever becomes of the model, its end
 * included. Afterwards it may show old values. */
typedef struct TRVpinned TRVpinned;
TRV_API int TRVpin(TRVmodel *model, TRVpinned **pin);
TRV_API int TRVpinmatrix(TRVmodel *model, TRVpinned **pin);
TRV_API void TRVunpin(TRVpinned *pin);

/* The matrix by position, by columns (csc != 0: start has nvars+1 entries, index holds rows, ascending in each column)
 * or by rows (start nrows+1, index holds columns, in stored order). Freshly allocated; give back with TRVfreematrix. */
typedef struct TRVmatrix {
    int64_t nmajor, nnz;
    int32_t *start, *index; /* nnz beyond 2^31-1 is TRV_ERROR_SIZE_LIMIT */
    double *value;
} TRVmatrix;
TRV_API int TRVgetmatrix(TRVmodel *model, int csc, TRVmatrix *matrix);
TRV_API void TRVfreematrix(TRVmatrix *matrix);
/* The Hessian H of the objective by position: objective = Obj'x + x'Hx / 2 + ObjConstant. Its upper triangle by columns
 * (row <= column, ascending in each; a term c*x*y with x != y is an entry c, a term c*x*x an entry 2c), zeros left out.
 * Freshly allocated as the matrix is. */
TRV_API int TRVgethessian(TRVmodel *model, TRVmatrix *upper);
/* The matrix by rows where the store holds it in one piece, as one large block of rows does: all three point into the
 * store, valid until its next change. Elsewhere start is NULL. */
TRV_API int TRVviewrows(TRVmodel *model, TRVmatrix *matrix);
/* The matrix by columns for an engine, with its values at *value. A large model turns its terms from rows to columns in
 * the memory in which they stand, and back when rows are next asked for: *owned is 0 then, and all three arrays point
 * into the store, valid until the next call that reads or changes rows. Elsewhere *owned is 1: give the matrix back
 * with TRVfreematrix. Its values may be the store's own all the same, where they stand in this order there (each column
 * at most once, ascending through all rows); matrix->value is NULL then. No start where what TRVviewrows shows costs an
 * engine no more to turn itself. */
TRV_API int TRVviewcolumns(TRVmodel *model, TRVmatrix *matrix, const double **value, int *owned);

/* The activities of the nonlinear rows (by position) at x (by position of variables). What is not defined there is NaN
 * or infinite. */
TRV_API int TRVevalnlrows(TRVmodel *model, const double *x, double *activity);
/* The first nonlinear row (by position; the objective counts as one more at the end) with a part that is nowhere
 * defined within the bounds of the variables, and what: "the logarithm of what lies in [-5, -1]". row is -1 where none
 * is seen, which is no promise: each operand's range is taken for itself. */
typedef struct TRVundefined {
    int32_t row;
    char why[96];
} TRVundefined;
TRV_API int TRVfindundefined(TRVmodel *model, TRVundefined *found);
/* The gradients at x, by reverse differentiation in one pass: the Jacobian of the nonlinear rows by rows, and as one
 * more row at the end the gradient of the whole objective. Every variable that occurs has an entry, also where it is 0,
 * linear terms first, in no order otherwise. Where abs has no derivative, at 0, 0 is taken. Give back with
 * TRVfreematrix. */
TRV_API int TRVgetnljacobian(TRVmodel *model, const double *x, TRVmatrix *matrix);

/* ---- curvature ------------------------------------------------------------------------------------------ */
/* Of the linear and quadratic parts; nobody looks at tapes. Whether quadratic parts are convex, decided by a sparse
 * factorisation with a small shift: a matrix counts as positive semidefinite where it is so with 1e-8 times its own
 * diagonal added. Where the factor would take gigabytes or minutes, an estimate of the smallest eigenvalue decides.
 * Objective: in the model's own sense (a concave one that is maximised is CONVEX). Rows: the set that a row describes;
 * one without an rhs is CONVEX, an equation with quadratic terms NONCONVEX. CONE is a row that is no convex function
 * but a second-order cone: squares (and a constant) on one side, the square of a variable, or the product of two, that
 * bounds keep from changing sign on the other, and no linear terms. ROUNDED is an objective that is convex but for the
 * rounding of its coefficients, which all end with the same decimal digit q (1e-9 to 1e-5 of the largest square): with
 * q times the root of the number of variables added. */
enum { TRV_CURVE_LINEAR = 0, TRV_CURVE_CONVEX = 1, TRV_CURVE_CONE = 2, TRV_CURVE_NONCONVEX = 3, TRV_CURVE_ROUNDED = 4 };
/* rows: nqrows entries, or NULL. */
TRV_API int TRVcurvature(TRVmodel *model, int *objective, char *rows);
/* The quadratic rows as second-order cones, for an engine that wants them so: cone c has the rows cone[c] .. cone[c+1],
 *   s_k = offset[k] - sum value[j] * x[index[j]], j in start[k] .. start[k+1],     s_first >= norm of the others,
 * and stands for quadratic row qrow[c]. Rows without quadratic terms are no cones, nor are rows without an rhs.
 * UNSUPPORTED, naming it, where one is NONCONVEX. Freshly allocated; give back with TRVfreecones. */
typedef struct TRVcones {
    int64_t ncones, nrows, nnz;
    int32_t *qrow, *cone;
    int32_t *start, *index;
    double *value, *offset;
    char *form;     /* for TRVconeduals: how cone c was made, */
    double *weight; /* and its weight */
} TRVcones;
TRV_API int TRVgetcones(TRVmodel *model, TRVcones *cones);
TRV_API void TRVfreecones(TRVcones *cones);
/* The multipliers of the quadratic rows (nqrows entries, in the model's own sense, signs as QPi; rows that are no cones
 * are left as they are) from the cones' slacks s and dual variables z (nrows entries each, z in the cone, of the
 * minimisation). NaN where a row has none: at the tip of a cone (as x*x <= t*t with both zero) its gradient vanishes.
 */
TRV_API int TRVconeduals(TRVmodel *model, const TRVcones *cones, const double *s, const double *z, double *qpi);

/* What changed since TRVclearchanges, for an engine that keeps its model. structure != 0: elements were added or
 * removed, a vtype changed, or more than a quarter of the coefficients (and more than a thousand): load anew. The lists
 * of bounds, costs and sides may name every element: sending them keeps the engine's basis, loading anew loses it.
 * Positions of changed elements, each once; pointers valid until the next change. */
typedef struct TRVchanges {
    int structure;
    int quadratic;          /* flag: quadratic terms of the objective, quadratic rows or their sides */
    int objconstant, sense; /* flags */
    int64_t nbounds, ncosts, nsides, ncoefs;
    const int32_t *bounds, *costs, *sides;
    const int32_t *coefrows, *coefvars; /* positions; the values are read with TRVgetcoefs by id */
} TRVchanges;
TRV_API int TRVgetchanges(TRVmodel *model, TRVchanges *changes);
TRV_API void TRVclearchanges(TRVmodel *model);

/* ---- the solution --------------------------------------------------------------------------------------- */
/* Arrays by position for an engine to write into, then TRVcommitsolution. x has nvars, rc nvars, pi nrows, qpi nqrows
 * entries (qpi NULL: not wanted, all zero). They are the store's own, made anew by each call; the last solution stays
 * readable until the commit. */
TRV_API int TRVopensolution(TRVmodel *model, double **x, double **rc, double **pi, double **qpi);
typedef struct TRVresult {
    int status;
    int has_x, has_duals;
    double objval; /* in the model's own sense, constant included; NaN where there is none */
    double bound;  /* NaN where there is none */
    double gap;    /* NaN: computed from the two above, |bound - objval| / max(|objval|, 1e-10), 0 when both agree */
    double runtime, itercount, nodecount;
    const char *engine;  /* "HiGHS 1.15.1" */
    const char *noduals; /* why has_duals is 0, for the text of NO_DATA; NULL where there is nothing to say */
} TRVresult;
TRV_API int TRVcommitsolution(TRVmodel *model, const TRVresult *result);

/* How well the arrays of the open (or, if none is open, the committed) solution hold, in one pass. The worst element is
 * the one with the largest violation against its own scale; reported are its violation (absolute), its scale and its
 * position, -1 where nothing is violated. So violation <= tolerance * scale holds for all elements where it holds for
 * the worst. Quadratic rows count on after the linear ones: row position nrows + q is quadratic row q, and nonlinear
 * rows after these: nrows + nqrows + i; general constraints come last, nrows + nqrows + nnlrows + g. Nonlinear rows and
 * general constraints have no multipliers; a row without a finite value at x is infinitely wrong. Dual figures
 * only with duals (has_duals): dual infeasibility is the reduced gradient c + Hx - A'pi - (gradients of quadratic
 * rows)'qpi - rc and the wrong-signed rc, pi or qpi; complementarity is the largest |multiplier| * distance to its
 * bound. */
typedef struct TRVresiduals {
    double row, bound, integral, dual, complementarity;
    int32_t worstrow, worstbound, worstintegral, worstdual, worstcomplementarity; /* the last two: variable positions,
                                                                                     or nvars + row position */
    double rowscale, boundscale, dualscale; /* what the violation may be measured against: 1 + largest term involved */
    double complementarityscale;            /* 1 + the largest term of the objective */
} TRVresiduals;
TRV_API int TRVcheck(TRVmodel *model, int has_duals, TRVresiduals *residuals);
/* The n elements that violate one of the five figures most (against their own scale), worst first; as many as are
 * violated at all. */
enum {
    TRV_CHECK_ROW = 0,
    TRV_CHECK_BOUND = 1,
    TRV_CHECK_INTEGRAL = 2,
    TRV_CHECK_DUAL = 3,
    TRV_CHECK_COMPLEMENTARITY = 4
};
typedef struct TRVoffender {
    double violation, scale;
    int32_t element; /* as the worst... of TRVresiduals */
} TRVoffender;
TRV_API int TRVoffenders(TRVmodel *model, int has_duals, int figure, int n, TRVoffender *out, int *count);
/* The objective at x (by position), constant and tape included. */
TRV_API int TRVevalobjective(TRVmodel *model, const double *x, double *value);

/* ---- the .nl file --------------------------------------------------------------------------------------- */
/* The updated model as a binary .nl file without names, the initial guess (Start) in it. UNSUPPORTED where an
 * expression nests too deep for a reader (800 levels, or 8 tangents in each other). The file's variables:
 * position[0..nvars) says which of the model's each one is, -1 for those that the file has besides (one for a quadratic
 * objective; a binary one for each semi-continuous variable that 0 lies outside the bounds of, which must be finite).
 * Free position with TRVfree. The objective's constant is left out. */
TRV_API int TRVwritenl(TRVmodel *model, const char *path, int32_t *nvars, int32_t **position);

#ifdef __cplusplus
}
#endif
#endif
