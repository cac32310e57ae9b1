// Matrix products and sums of MNLExpr.
#include "matrixapi/mlinexpr_operators.h"
#include "matrixapi/mnlexpr.h"

namespace tarvopy {

using namespace pysupport;

Ref nonlinear_matrix_product(PyObject *, PyObject *) {
    nonlinear_later();
}

std::span<Member> nonlinear_product_members() {
    return {};
}

} // namespace tarvopy
