// The module tarvopy._modelapi: its functions and the bindings of its siblings.

#include "modelapi.h"

namespace tarvopy::modelapi {

namespace {

const CoreApi *core_api;
const MatrixApi *matrix_api;

template <class Api> const Api *load() {
    const Api *api = Api::load();
    if (!api)
        throw PythonError{};
    return api;
}

int execute(PyObject *module) {
    return pysupport::border_status([&] {
        core_api = load<CoreApi>();
        Ref base = make_model_base(module);
        check_status(PyModule_AddObjectRef(module, "ModelBase", base.get()));
        check_status(PyModule_AddStringConstant(module, "__version__", TARVOPY_VERSION));
    });
}

PyMethodDef function(const char *name, Method function, const char *doc) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)), METH_FASTCALL | METH_KEYWORDS,
            doc};
}

PyMethodDef functions[] = {
    function("problem", function_problem,
             "problem($module, handle, /)\n--\n\nRead-only views and numbers of the store by the field names of "
             "problem.Problem."),
    function("cheapest_matrix", function_cheapest_matrix,
             "cheapest_matrix($module, handle, /)\n--\n\nThe matrix for reading, not copied where it need not be: "
             "(start, index, value, by columns or not)."),
    function("matrix", function_matrix,
             "matrix($module, handle, /)\n--\n\nThe matrix by rows, freshly made: (start, index, value)."),
    function("hessian", function_hessian,
             "hessian($module, handle, /)\n--\n\nThe objective's Hessian, freshly made: (start, index, value) of its "
             "upper triangle by columns."),
    function(
        "qmatrix", function_qmatrix,
        "qmatrix($module, handle, /)\n--\n\nThe quadratic rows, freshly made: (start, index, value, qstart, qvar1, "
        "qvar2, qvalue)."),
    function(
        "curvature", function_curvature,
        "curvature($module, handle, /)\n--\n\nThe curvature of the objective (int) and of each quadratic row (int8), "
        "by the numbers of tarvo_engine.h."),
    function("cones", function_cones,
             "cones($module, handle, /)\n--\n\nThe quadratic rows as second-order cones by the field names of "
             "problem.Cones."),
    function(
        "cone_duals", function_cone_duals,
        "cone_duals($module, handle, native, s, z, qpi, /)\n--\n\nWrites the multipliers of the rows that are cones "
        "into qpi, from the cones' slacks and duals."),
    function("stacked_columns", function_stacked_columns,
             "stacked_columns($module, columns, blocks, /)\n--\n\nBlocks of rows, one under the other, as columns: "
             "(start, index, value)."),
    function(
        "genmatrix", function_genmatrix,
        "genmatrix($module, handle, /)\n--\n\nThe general constraints, freshly made: (type, argptr, ptr, index, value, "
        "constant, dataptr, data)."),
    function(
        "changes", function_changes,
        "changes($module, handle, /)\n--\n\nWhat changed since clear_changes by the field names of problem.Changes."),
    function("clear_changes", function_clear_changes,
             "clear_changes($module, handle, /)\n--\n\nChanges count anew from here."),
    function("write_nl", function_write_nl,
             "write_nl($module, handle, path, /)\n--\n\nWrites a binary .nl file; which position each of its variables "
             "is, -1 for none (int32)."),
    function(
        "open_solution", function_open_solution,
        "open_solution($module, handle, /)\n--\n\nWritable (x, rc, pi, qpi) by position; the last solution stays until "
        "commit_solution."),
    function(
        "commit_solution", function_commit_solution,
        "commit_solution($module, handle, /, *, status, has_x=False, has_duals=False, objval=nan, bound=nan, gap=nan, "
        "runtime=0.0, itercount=0.0, nodecount=0.0, engine='', noduals=None)\n--\n\nMakes the open arrays the model's "
        "solution."),
    function("residuals", function_residuals,
             "residuals($module, handle, has_duals, /)\n--\n\nHow well the open solution (else the last one) holds."),
    function("offenders", function_offenders,
             "offenders($module, handle, has_duals, figure, n, /)\n--\n\nThe n worst (violation, scale, element) of a "
             "figure, worst first."),
    function("element_name", function_element_name,
             "element_name($module, handle, kind, position, /)\n--\n\nThe name of a variable or row by its position."),
    function("evaluate_objective", function_evaluate_objective,
             "evaluate_objective($module, handle, x, /)\n--\n\nThe objective at x (float64, by position), constant "
             "included."),
    function(
        "undefined", function_undefined,
        "undefined($module, handle, /)\n--\n\nThe first nonlinear row with a part that is nowhere defined within the "
        "bounds, and the part; None."),
    function("set_solving", function_set_solving,
             "set_solving($module, handle, flag, /)\n--\n\nMarks the model as being solved: other calls are refused "
             "until it is unmarked."),
    function("is_solving", function_is_solving,
             "is_solving($module, handle, /)\n--\n\nWhether the model is marked as being solved."),
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void *>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition{PyModuleDef_HEAD_INIT,
                       "_modelapi",
                       "The native half of tarvopy.Model: what moves arrays between Python and the model store.",
                       0,
                       functions,
                       module_slots,
                       nullptr,
                       nullptr,
                       nullptr};

} // namespace

const CoreApi &core() {
    return *core_api;
}

const MatrixApi &matrix() {
    if (!matrix_api)
        matrix_api = load<MatrixApi>();
    return *matrix_api;
}

} // namespace tarvopy::modelapi

PyMODINIT_FUNC PyInit__modelapi() {
    return PyModuleDef_Init(&tarvopy::modelapi::definition);
}
