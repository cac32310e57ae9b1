// What the model reads of nonlinear expressions (collaborators/matrix_rows.h): sides as linear terms and tapes.
#include "matrixapi/rows.h"

#include "matrixapi/mlinexpr_operators.h"

namespace tarvopy {

using namespace pysupport;

int nonlinear_open(PyObject *, PyObject *, NonlinearBlock *block) {
    *block = {};
    return border_status([&] { nonlinear_later(); });
}

void nonlinear_close(NonlinearBlock *) {}

} // namespace tarvopy
