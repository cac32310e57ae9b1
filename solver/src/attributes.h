// attributes.h: the table of all attributes, one row each. The names are constants of the enumeration Attr, so that
// readers and writers switch over them.
#pragma once

#include "tarvo.h"

namespace store {

// name, kind, type, settable
#define TARVO_ATTRIBUTES(ROW)                                                                                          \
    ROW(LB, TRV_VAR, TRV_DOUBLE, 1)                                                                                    \
    ROW(UB, TRV_VAR, TRV_DOUBLE, 1)                                                                                    \
    ROW(Obj, TRV_VAR, TRV_DOUBLE, 1)                                                                                   \
    ROW(VType, TRV_VAR, TRV_CHAR, 1)                                                                                   \
    ROW(VarName, TRV_VAR, TRV_STRING, 1)                                                                               \
    ROW(Start, TRV_VAR, TRV_DOUBLE, 1)                                                                                 \
    ROW(X, TRV_VAR, TRV_DOUBLE, 0)                                                                                     \
    ROW(RC, TRV_VAR, TRV_DOUBLE, 0)                                                                                    \
    ROW(RHS, TRV_CONSTR, TRV_DOUBLE, 1)                                                                                \
    ROW(Sense, TRV_CONSTR, TRV_CHAR, 1)                                                                                \
    ROW(Lower, TRV_CONSTR, TRV_DOUBLE, 1)                                                                              \
    ROW(Upper, TRV_CONSTR, TRV_DOUBLE, 1)                                                                              \
    ROW(ConstrName, TRV_CONSTR, TRV_STRING, 1)                                                                         \
    ROW(Pi, TRV_CONSTR, TRV_DOUBLE, 0)                                                                                 \
    ROW(Slack, TRV_CONSTR, TRV_DOUBLE, 0)                                                                              \
    ROW(QRHS, TRV_QCONSTR, TRV_DOUBLE, 1)                                                                              \
    ROW(QSense, TRV_QCONSTR, TRV_CHAR, 0)                                                                              \
    ROW(QName, TRV_QCONSTR, TRV_STRING, 1)                                                                             \
    ROW(QPi, TRV_QCONSTR, TRV_DOUBLE, 0)                                                                               \
    ROW(QSlack, TRV_QCONSTR, TRV_DOUBLE, 0)                                                                            \
    ROW(GenName, TRV_GENCONSTR, TRV_STRING, 1)                                                                         \
    ROW(GenType, TRV_GENCONSTR, TRV_INT, 0)                                                                            \
    ROW(NLName, TRV_NLCONSTR, TRV_STRING, 1)                                                                           \
    ROW(NLSlack, TRV_NLCONSTR, TRV_DOUBLE, 0)                                                                          \
    ROW(NumVars, TRV_MODEL, TRV_INT, 0)                                                                                \
    ROW(NumConstrs, TRV_MODEL, TRV_INT, 0)                                                                             \
    ROW(NumQConstrs, TRV_MODEL, TRV_INT, 0)                                                                            \
    ROW(NumGenConstrs, TRV_MODEL, TRV_INT, 0)                                                                          \
    ROW(NumNLConstrs, TRV_MODEL, TRV_INT, 0)                                                                           \
    ROW(NumNZs, TRV_MODEL, TRV_INT, 0)                                                                                 \
    ROW(Status, TRV_MODEL, TRV_INT, 0)                                                                                 \
    ROW(ModelSense, TRV_MODEL, TRV_INT, 1)                                                                             \
    ROW(ModelName, TRV_MODEL, TRV_STRING, 1)                                                                           \
    ROW(ObjConstant, TRV_MODEL, TRV_DOUBLE, 1)                                                                         \
    ROW(ObjVal, TRV_MODEL, TRV_DOUBLE, 0)                                                                              \
    ROW(ObjBound, TRV_MODEL, TRV_DOUBLE, 0)                                                                            \
    ROW(Gap, TRV_MODEL, TRV_DOUBLE, 0)                                                                                 \
    ROW(Runtime, TRV_MODEL, TRV_DOUBLE, 0)                                                                             \
    ROW(IterCount, TRV_MODEL, TRV_DOUBLE, 0)                                                                           \
    ROW(NodeCount, TRV_MODEL, TRV_DOUBLE, 0)                                                                           \
    ROW(EngineName, TRV_MODEL, TRV_STRING, 0)

enum class Attr : int {
#define TARVO_ENUM(name, kind, type, settable) name,
    TARVO_ATTRIBUTES(TARVO_ENUM)
#undef TARVO_ENUM
};

const TRVattrinfo *attributes();
int attributecount();
// -1 for an unknown name.
int findattribute(const char *name);

enum class Access { kRead, kWrite };
// The attribute of this name, checked to be of the type, to belong to elements or to the model as said, and to be
// settable for a write.
Attr requireattribute(const char *name, int type, bool ofelements, Access access);

inline const TRVattrinfo &infoof(Attr attr) {
    return attributes()[static_cast<int>(attr)];
}

} // namespace store
