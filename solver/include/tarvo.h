/* tarvo.h: the model store, libtarvo140, behind a C interface.
 *
 * A TRVmodel keeps variables (columns), linear, quadratic and nonlinear rows, general constraints, the objective, what
 * is pending, attributes and the last solution. It knows nothing of Python and of any engine; what takes a model to one
 * and back stands in tarvo_engine.h.
 *
 *   TRVmodel *m;  int32_t x;
 *   TRVnewmodel("diet", &m);
 *   double lb = 0, ub = TRV_INFINITY, cost = 1;  char type = 'C';
 *   TRVaddvars(m, 10, &lb, 0, &ub, 0, &cost, 0, &type, 0, NULL, &x);      ids x .. x+9, index -1 until TRVupdatemodel
 *
 * Identity. Every element has an id from the moment it is added; ids count up from 0 for each kind, are consecutive
 * for what one call adds, and are never used again. The index (position) of an element is -1 while it is pending, its
 * place in the model from the update on, and -2 once it is removed. All functions speak of ids, but those that say
 * "position".
 *
 * Arrays with a step. (const double *lb, int lbstep): element i is lb[i * lbstep], so a step of 0 spreads one value.
 *
 * Errors. Every function returns 0 or a code below, and TRVgeterrormsg then says what was wrong, with the offending
 * values. A call that fails changes nothing.
 *
 * Infinity. Magnitudes of 1e20 and more mean "none" and are stored as +-INFINITY. NaN is refused everywhere, but in
 * Start.
 */
#ifndef TARVO_H
#define TARVO_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TRV_API __attribute__((visibility("default")))

/* ---- codes ---------------------------------------------------------------------------------------------- */
enum {
    TRV_OK = 0,
    TRV_ERROR_OUT_OF_MEMORY = 1,
    TRV_ERROR_INVALID_ARGUMENT = 2, /* NaN, infinite coefficients, lengths, index range, row pointers that decrease */
    TRV_ERROR_UNKNOWN_ATTRIBUTE = 3,
    TRV_ERROR_ATTRIBUTE_KIND = 4, /* the attribute belongs to another kind or value type, or cannot be set */
    TRV_ERROR_NO_DATA = 5,        /* an attribute that is not there yet, for instance X before a solve */
    TRV_ERROR_NOT_IN_MODEL = 6,   /* removed elements, ids of another model */
    TRV_ERROR_SIZE_LIMIT = 7,     /* more than 2^31-1 elements or nonzeros where 32-bit numbers count them */
    TRV_ERROR_FILE = 8,           /* cannot be opened, read or written */
    TRV_ERROR_SYNTAX = 9,         /* a file that does not parse: the message has "line N" */
    TRV_ERROR_UNSUPPORTED = 10,   /* what a format or an engine cannot say */
    TRV_ERROR_CLOSED = 11,        /* reserved for the callers: the model was closed */
    TRV_ERROR_INTERRUPTED = 12    /* the function of TRVsetstop ended the call */
};

/* Kinds of element. The numbers are those of _typeenum in the matrix handles. */
enum { TRV_MODEL = 0, TRV_VAR = 1, TRV_CONSTR = 2, TRV_QCONSTR = 4, TRV_GENCONSTR = 5, TRV_NLCONSTR = 6 };
/* Types of attribute value. */
enum { TRV_CHAR = 0, TRV_INT = 1, TRV_DOUBLE = 2, TRV_STRING = 3 };
/* Status of the last solve (attribute "Status"). */
enum {
    TRV_NOT_SOLVED = 0,
    TRV_OPTIMAL = 1,
    TRV_INFEASIBLE = 2,
    TRV_UNBOUNDED = 3,
    TRV_INFEASIBLE_OR_UNBOUNDED = 4,
    TRV_TIME_LIMIT = 5,
    TRV_ITERATION_LIMIT = 6,
    TRV_NODE_LIMIT = 7,
    TRV_SOLUTION_LIMIT = 8,
    TRV_INTERRUPTED = 9,
    TRV_IMPRECISE = 10,
    TRV_FAILED = 11
};

#define TRV_INFINITY 1e20 /* this and more means none */
#define TRV_MINIMIZE 1
#define TRV_MAXIMIZE (-1)

typedef struct TRVmodel TRVmodel;

/* ---- life ----------------------------------------------------------------------------------------------- */
TRV_API int TRVnewmodel(const char *name, TRVmodel **out);
TRV_API void TRVfreemodel(TRVmodel *model); /* NULL is fine */
/* A new model with the variables, rows and objective of the updated model, in their order and under their names, their
 * ids counting up from 0; all variables are continuous.
 *   RELAXED  a semi-continuous variable takes the values between its own and 0. General constraints are left out: what
 *            they say of integers and alternatives is relaxed too
 *   FIXED    at the last solution (NO_DATA without one): integers fixed at the nearest whole number, semi-continuous
 *            variables at 0 or between their bounds, whichever is nearer. Each general constraint becomes linear rows,
 *            behind the others, that say of it what holds there: which argument is the largest, which piece of a
 *            function a point is on, which members of a set are 0 */
enum { TRV_COPY_RELAXED = 1, TRV_COPY_FIXED = 2 };
TRV_API int TRVcopymodel(TRVmodel *model, int form, TRVmodel **out);
TRV_API const char *TRVgeterrormsg(const TRVmodel *model); /* of the last failed call on this model; "" if none */
/* A function beside the store (the file readers) leaves its text here. Returns code. */
TRV_API int TRVfail(TRVmodel *model, int code, const char *message);
/* Memory for a large array that lives about as long as an expression: it is handed on to the next array of its size
 * when it is freed (touching fresh pages costs more than writing them), until a matrix is taken for an engine or a
 * model is freed. NULL when there is none. */
TRV_API void *TRVmalloc(size_t bytes);
TRV_API void TRVfree(void *memory); /* what the store allocated for its caller */

/* ---- names ---------------------------------------------------------------------------------------------- */
/* Names of the n elements that one call adds. A prefix with a shape is kept as such: element (i,j) is called
 * prefix[i,j] when somebody asks, and a 0-dimensional shape is called prefix. NULL (or TRV_NAMES_NONE) gives
 * the default names: C<id> for variables, R<id> linear rows, Q<id>, G<id>, N<id>.
 * A list is one block of bytes: name i is text[offset[i]] .. text[offset[i+1]]; an empty one gives the default name. */
enum { TRV_NAMES_NONE = 0, TRV_NAMES_SHAPE = 1, TRV_NAMES_LIST = 2 };
typedef struct TRVnames {
    int form;
    const char *prefix; /* TRV_NAMES_SHAPE, UTF-8 */
    int ndim;
    const int64_t *shape;  /* its product is n */
    const char *text;      /* TRV_NAMES_LIST */
    const int64_t *offset; /* n + 1 */
} TRVnames;

/* ---- adding --------------------------------------------------------------------------------------------- */
/* vtype: 'C' 'B' 'I' 'S'. Bounds of 'B' are cut to [0, 1]. lb > ub is stored as it is (infeasible at the solve). */
TRV_API int TRVaddvars(TRVmodel *model, int64_t n, const double *lb, int lbstep, const double *ub, int ubstep,
                       const double *obj, int objstep, const char *vtype, int vtypestep, const TRVnames *names,
                       int32_t *firstid);

/* Rows lower <= row <= upper, handed over in three steps, so that the caller writes its terms where they stay:
 *   TRVopenrows    makes room; the caller fills ptr[0..nrows] (ptr[0] = 0, int64), var[0..ptr[nrows]] (ids) and coef.
 *                  nnz is an upper bound. One block at a time is open; opening another drops the first.
 *   TRVcommitrows  checks everything (range and life of ids, row pointers, NaN and infinity), sums duplicates (first
 *                  occurrence keeps its place), drops zeros, and makes the rows pending.
 *   TRVdroprows    gives the room back.
 *   TRVopenside    makes room for one side (upper: 0 or 1) of as many rows. What the caller writes there before it
 * calls anything else, and then gives as this side of exactly so many rows, is not copied. A failed commit leaves no
 * open block. lower/upper may be steps of 0; an upper side of step 0 that is infinite makes rows '>', also those
 * without a lower side, whose Sense would else be '<'. */
typedef struct TRVrows {
    int64_t *ptr;
    int32_t *var;
    double *coef;
} TRVrows;
TRV_API int TRVopenrows(TRVmodel *model, int64_t nrows, int64_t nnz, TRVrows *rows);
TRV_API int TRVopenside(TRVmodel *model, int64_t nrows, int upper, double **side);
TRV_API int TRVcommitrows(TRVmodel *model, const double *lower, int lowerstep, const double *upper, int upperstep,
                          const TRVnames *names, int32_t *firstid);
TRV_API void TRVdroprows(TRVmodel *model);
/* The three steps in one, with copies. */
TRV_API int TRVaddrows(TRVmodel *model, int64_t nrows, const int64_t *ptr, const int32_t *var, const double *coef,
                       const double *lower, int lowerstep, const double *upper, int upperstep, const TRVnames *names,
                       int32_t *firstid);
/* Rows whose terms stand in memory that nobody changes any more (an expression's own): the store keeps the terms there,
 * and copies them before it changes one itself. Terms that must be tidied (duplicates, zeros) are copied at once.
 * release(keeper) is called exactly once, when the store has done with the memory, after a failure too. ptr NULL: every
 * row has `width` terms. alone(keeper) says whether nobody but the store looks at the terms any more, so that it may
 * put them into another order; NULL: somebody may.
 * With nstrips > 0 the terms are told by strips instead, and ptr, width, var and coef mean nothing: every row has
 * nstrips terms, of which the k-th of row i is coef[i] * variable var[i] of strip k. The array of strips itself is
 * copied. */
typedef struct TRVstrip {
    const int32_t *var; /* NULL: first + i */
    const double *coef; /* NULL: scale */
    int32_t first;
    double scale;
} TRVstrip;
typedef struct TRVsharedrows {
    const int64_t *ptr;
    int64_t width;
    const int32_t *var;
    const double *coef;
    void *keeper;
    void (*release)(void *keeper);
    int (*alone)(void *keeper);
    int32_t nstrips;
    const TRVstrip *strips;
} TRVsharedrows;
TRV_API int TRVsharerows(TRVmodel *model, int64_t nrows, const TRVsharedrows *rows, const double *lower, int lowerstep,
                         const double *upper, int upperstep, const TRVnames *names, int32_t *firstid);

/* Replaces the whole objective at once: all Obj, ObjConstant and the quadratic terms (duplicates are summed). sense: 1,
 * -1, or 0 to keep it. */
TRV_API int TRVsetobjective(TRVmodel *model, int64_t n, const int32_t *var, const double *coef, double constant,
                            int sense);
/* The same with nq quadratic terms qcoef[k] * var1[k] * var2[k]. Terms that name the same pair, in either order, are
 * summed, and zeros are dropped. */
TRV_API int TRVsetqobjective(TRVmodel *model, int64_t n, const int32_t *var, const double *coef, int64_t nq,
                             const int32_t *var1, const int32_t *var2, const double *qcoef, double constant, int sense);

/* Quadratic rows: row i is  sum coef[k] * var[k], k in ptr[i] .. ptr[i+1],
 *                         + sum qcoef[k] * var1[k] * var2[k], k in qptr[i] .. qptr[i+1],   sense[i]  rhs[i]
 * with sense '<', '>' or '='. Duplicate variables and pairs (in either order) are summed, the first keeps its place;
 * zeros are dropped. A row whose quadratic terms cancel stays a quadratic row. Everything is copied. ptr or qptr NULL:
 * no such terms. An rhs of 1e20 and more is none, as for linear rows. */
typedef struct TRVqrows {
    const int64_t *ptr;
    const int32_t *var;
    const double *coef;
    const int64_t *qptr;
    const int32_t *var1, *var2;
    const double *qcoef;
} TRVqrows;
TRV_API int TRVaddqrows(TRVmodel *model, int64_t nrows, const TRVqrows *rows, const char *sense, int sensestep,
                        const double *rhs, int rhsstep, const TRVnames *names, int32_t *firstid);

/* Nonlinear functions are tapes: expressions in postfix order, one int32 an entry, constants beside them.
 *   v >= 0          the variable with id v
 *   TRV_NLOP(op)    an operation on what stands before it; TRV_NL_CONSTANT takes the next number of the constants
 *   TRV_NLSUM(n)    the sum of the n expressions before it, 1 <= n <= TRV_NL_MAXSUM
 * So 2*sin(x*y) + z is the tape  CONSTANT x y MULTIPLY SIN MULTIPLY z SUM(2)  with the constant 2: 8 entries, 40 bytes.
 * LOG is the natural logarithm, LOGISTIC(u) is 1 / (1 + exp(-u)), POW and DIVIDE take the left operand first. */
enum {
    TRV_NL_CONSTANT = 0,
    TRV_NL_SUM = 1,
    TRV_NL_MINUS = 2,
    TRV_NL_MULTIPLY = 3,
    TRV_NL_DIVIDE = 4,
    TRV_NL_POW = 5,
    TRV_NL_UMINUS = 6,
    TRV_NL_SQUARE = 7,
    TRV_NL_SQRT = 8,
    TRV_NL_EXP = 9,
    TRV_NL_LOG = 10,
    TRV_NL_LOG2 = 11,
    TRV_NL_LOG10 = 12,
    TRV_NL_SIN = 13,
    TRV_NL_COS = 14,
    TRV_NL_TAN = 15,
    TRV_NL_TANH = 16,
    TRV_NL_LOGISTIC = 17,
    TRV_NL_ABS = 18,
    TRV_NL_OPERATIONS = 19 /* how many there are */
};
#define TRV_NL_MAXSUM 67108863 /* 2^26 - 1 */
#define TRV_NLOP(op) (~(op))
#define TRV_NLSUM(n) (~(TRV_NL_SUM | (n) << 5))

/* Nonlinear rows: lower[i] <= sum coef[k] * var[k], k in ptr[i] .. ptr[i+1],
 *                           + the tape code[k], k in codeptr[i] .. codeptr[i+1] <= upper[i]
 * The constants of all tapes stand one after the other in the order in which they are taken, nconstants in all. ptr or
 * codeptr NULL: no such terms; a row may lack a tape. Linear terms are tidied as those of linear rows are. Everything
 * is copied.
 *
 * Refused with the row named, before anything changes: a tape that takes what is not there or leaves more than one
 * value, unknown operations, removed variables, constants that are not finite, and parts made of constants alone
 * that have no finite value (the logarithm of what is not positive, a broken power of what is negative, an overflow);
 * a division by such a part that is 0.
 *
 * A variable that stands in the tape of a row or of the objective cannot be removed before these are: a tape has no
 * term that could go with it. Linear terms go with their variables. */
typedef struct TRVnlrows {
    const int64_t *ptr;
    const int32_t *var;
    const double *coef;
    const int64_t *codeptr;
    const int32_t *code;
    int64_t nconstants;
    const double *constant;
} TRVnlrows;
TRV_API int TRVaddnlrows(TRVmodel *model, int64_t nrows, const TRVnlrows *rows, const double *lower, int lowerstep,
                         const double *upper, int upperstep, const TRVnames *names, int32_t *firstid);

/* One tape. */
typedef struct TRVnltape {
    int64_t ncodes;
    const int32_t *code;
    int64_t nconstants;
    const double *constant;
} TRVnltape;
/* As TRVsetqobjective, with a tape that is added to the other terms. The other two functions that replace the objective
 * drop the tape. */
TRV_API int TRVsetnlobjective(TRVmodel *model, int64_t n, const int32_t *var, const double *coef, int64_t nq,
                              const int32_t *var1, const int32_t *var2, const double *qcoef, const TRVnltape *tape,
                              double constant, int sense);

/* General constraints: each has a type, arguments and numbers. Argument a is the linear expression
 *   constant[a] + sum coef[k] * var[k], k in ptr[a] .. ptr[a+1]
 * and constraint g has the arguments argptr[g] .. argptr[g+1] and the numbers data[dataptr[g] .. dataptr[g+1]].
 *   MAX, MIN     first argument = the largest, smallest of the others (one at least)
 *   ABS          first argument = |second|
 *   AND, OR      first argument = whether all, any of the others are 1; each is one variable with coefficient 1, which
 *                must be binary at a solve, or the number 0 or 1
 *   PWL          first argument = the piecewise-linear function of the second through the points (x, y), data being all
 *                x, then all y: at least two points, x not decreasing. Beyond the ends the outer pieces go on. At a
 *                jump (two points of one x, at most two, and not at the ends) every value between the two is taken.
 *   INDICATOR    the first argument, one variable with coefficient 1 and at a solve binary, being data[0] (0 or 1)
 *                implies data[1] <= second argument <= data[2]
 *   SOS1, SOS2   the arguments, each one variable with coefficient 1 and none twice, of which at most one may be
 *                nonzero, or two that are neighbours in the order of data, their weights: one each, all different
 * Terms of an argument are tidied as those of linear rows are. argptr, ptr and dataptr start at 0; ptr NULL: arguments
 * that are numbers, dataptr NULL: no numbers. Everything is copied. */
enum {
    TRV_GEN_MAX = 0,
    TRV_GEN_MIN = 1,
    TRV_GEN_ABS = 2,
    TRV_GEN_AND = 3,
    TRV_GEN_OR = 4,
    TRV_GEN_PWL = 5,
    TRV_GEN_INDICATOR = 6,
    TRV_GEN_SOS1 = 7,
    TRV_GEN_SOS2 = 8,
    TRV_GEN_TYPES = 9 /* how many there are */
};
typedef struct TRVgens {
    int64_t ngens;
    const int64_t *argptr;
    const int64_t *ptr;
    const int32_t *var;
    const double *coef;
    const double *constant; /* one an argument; NULL: all 0 */
    const int64_t *dataptr;
    const double *data;
} TRVgens;
/* All of one type. Refused with the constraint named, before anything changes: wrong numbers of arguments or data, NaN
 * and infinity (but in the sides of an INDICATOR), removed variables. As for tapes, a variable in a general constraint
 * cannot be removed before that. */
TRV_API int TRVaddgens(TRVmodel *model, int type, const TRVgens *gens, const TRVnames *names, int32_t *firstid);

/* Pending elements are gone at once, those in the model at the next update: until then they can be read and set, but
 * new terms over such variables are refused. Removing what is removed or marked already is fine
 * (NOT_IN_MODEL only for ids that never were). */
TRV_API int TRVremove(TRVmodel *model, int kind, int64_t n, const int32_t *ids);
/* The same for several kinds, each named once: all of them or none. Variables may go together with the constraints that
 * keep them. */
typedef struct TRVremoval {
    int kind;
    int64_t n;
    const int32_t *ids;
} TRVremoval;
TRV_API int TRVremoveall(TRVmodel *model, int32_t count, const TRVremoval *removals);
/* Asks now for the memory it takes to add n elements of the kind and to remove them again one by one before the next
 * update, which then needs none: for callers that take back what they added. n = 0 gives back what was not used. */
TRV_API int TRVexpectremoval(TRVmodel *model, int kind, int64_t n);
/* Applies what is pending. If anything changed since the last solution (attributes and coefficients included), Status
 * becomes NOT_SOLVED and the old X becomes what the next solve may start from (where Start is not set). */
TRV_API int TRVupdatemodel(TRVmodel *model);

/* ---- identity ------------------------------------------------------------------------------------------- */
/* How many ids of the kind were ever given. */
TRV_API int32_t TRVidcount(const TRVmodel *model, int kind);
/* Position of each id: >= 0, -1 pending, -2 removed (also for ids never given). ids NULL means first, first+1, ... */
TRV_API void TRVpositions(const TRVmodel *model, int kind, int64_t n, const int32_t *ids, int32_t first, int32_t *out);
TRV_API int32_t TRVposition(const TRVmodel *model, int kind, int32_t id);
/* Id of each position; a position below 0 or not in the model is NOT_IN_MODEL. */
TRV_API int TRVidsat(TRVmodel *model, int kind, int64_t n, const int32_t *positions, int32_t *ids);
/* Id by name, pending ones included, removed ones not; -1 where there is none. Of equal names the first. */
TRV_API int TRVfindname(TRVmodel *model, int kind, const char *name, int32_t *id);

/* ---- attributes ----------------------------------------------------------------------------------------- */
typedef struct TRVattrinfo {
    const char *name;
    int kind; /* TRV_MODEL, TRV_VAR, ... */
    int type; /* TRV_CHAR, ... */
    int settable;
} TRVattrinfo;
/* NULL for an unknown name. */
TRV_API const TRVattrinfo *TRVfindattr(const char *name);
/* The i-th attribute of the table, NULL past the end. */
TRV_API const TRVattrinfo *TRVattrat(int i);

/* Of the model. None of these ever updates. */
TRV_API int TRVgetintattr(TRVmodel *model, const char *name, int *value);
TRV_API int TRVsetintattr(TRVmodel *model, const char *name, int value);
TRV_API int TRVgetdblattr(TRVmodel *model, const char *name, double *value);
TRV_API int TRVsetdblattr(TRVmodel *model, const char *name, double value);
TRV_API int TRVgetstrattr(TRVmodel *model, const char *name, const char **value); /* valid until the next call */
TRV_API int TRVsetstrattr(TRVmodel *model, const char *name, const char *value);

/* Of elements, by id; ids NULL means first, first+1, ..., first+n-1. Attribute writes act at once, all or none.
 *
 * Sides of rows. Lower and Upper are what is stored; Sense and RHS are another view of them. Sense is '<', '>', '=', or
 * 'R' for two finite sides; a free row is '<' (or '>' if it was that) with an infinite RHS. RHS is the lower side of
 * '>', both of '=', the upper of '<' and 'R'. Setting it keeps the Sense; setting the Sense ('<', '>', '=') keeps the
 * RHS and drops the other side; setting Lower or Upper decides the Sense anew.
 *
 * Slack is RHS minus activity at X, with the coefficients and sides of now. Writing the value that is there changes
 * nothing, and keeps the solution. */
TRV_API int TRVgetdbls(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, double *out);
TRV_API int TRVsetdbls(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first,
                       const double *values, int step);
TRV_API int TRVgetints(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, int32_t *out);
TRV_API int TRVgetchars(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, char *out);
TRV_API int TRVsetchars(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first,
                        const char *values, int step);
/* Strings come as one block (text) with n+1 offsets, both freed by the caller with TRVfree. */
TRV_API int TRVgetstrs(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first, char **text,
                       int64_t **offset);
TRV_API int TRVsetstrs(TRVmodel *model, const char *name, int64_t n, const int32_t *ids, int32_t first,
                       const char *text, const int64_t *offset);

/* ---- coefficients --------------------------------------------------------------------------------------- */
/* A row's terms in stored order. Pointers into the store, valid until the next change. Pending rows too. */
TRV_API int TRVgetrow(TRVmodel *model, int32_t row, int64_t *nnz, const int32_t **var, const double **coef);
/* A quadratic row's terms in stored order (all but nrows and the pointers' meaning as in TRVqrows: ptr and qptr point
 * to the row's two bounds). Pointers into the store, valid until the next change. Pending rows too. */
TRV_API int TRVgetqrow(TRVmodel *model, int32_t qrow, TRVqrows *row);
/* The quadratic terms of the objective in stored order, var1 <= var2 in each; the linear ones are Obj. */
TRV_API int TRVgetqobjective(TRVmodel *model, int64_t *nq, const int32_t **var1, const int32_t **var2,
                             const double **qcoef);
/* A nonlinear row's terms and tape (ptr and codeptr point to the row's two bounds, constant to its own constants, whose
 * number is nconstants). Pointers into the store, valid until the next change. Pending rows too. */
TRV_API int TRVgetnlrow(TRVmodel *model, int32_t nlrow, TRVnlrows *row);
/* The objective's tape, empty where there is none. */
TRV_API int TRVgetnlobjective(TRVmodel *model, TRVnltape *tape);
/* A general constraint (ngens is 1; argptr and dataptr point to its two bounds, the other arrays are those of all).
 * Pointers into the store, valid until the next change. Pending ones too. */
TRV_API int TRVgetgen(TRVmodel *model, int32_t gen, int *type, TRVgens *view);
/* One coefficient for each pair; a missing one reads 0. */
TRV_API int TRVgetcoefs(TRVmodel *model, int64_t n, const int32_t *rows, const int32_t *vars, double *out);
/* Acts at once, all or none; 0 takes the term away; of repeated pairs the last one wins. */
TRV_API int TRVsetcoefs(TRVmodel *model, int64_t n, const int32_t *rows, const int32_t *vars, const double *values);

/* ---- files ---------------------------------------------------------------------------------------------- */
/* By ending, in any case: .mps, .qps, .sif (free or fixed form, told apart by its lines) and .lp, each also with .gz,
 * with quadratic objectives and rows, special ordered sets and indicators (general constraints of other types and
 * nonlinear rows are refused). TRVreadmodel wants an empty model and updates it; a file that is refused changes
 * nothing. TRVwritemodel updates, refuses what the format cannot say before a byte is written (UNSUPPORTED), and puts
 * the whole file in the old one's place at once. */
TRV_API int TRVreadmodel(TRVmodel *model, const char *path);
TRV_API int TRVwritemodel(TRVmodel *model, const char *path);
/* .sol: one "name value" a line, # begins a comment. Written from X; read into Start. */
TRV_API int TRVwritesolution(TRVmodel *model, const char *path);
TRV_API int TRVreadsolution(TRVmodel *model, const char *path);
/* While one of the functions above or TRVwritenl runs, it asks stop(context) again and again, on its own thread, some
 * milliseconds apart; if that is not 0 the call fails with INTERRUPTED and, as any call that fails, has changed neither
 * the model nor the file. The function must not use the model. NULL: the calls run to their end, as they do at first.
 */
TRV_API void TRVsetstop(TRVmodel *model, int (*stop)(void *context), void *context);

#ifdef __cplusplus
}
#endif
#endif
