#include "solver_object.h"

#include "arrays.h"
#include "options.h"
#include "solver.h"

#include <algorithm>
#include <exception>
#include <vector>

namespace tarvopy::highs {

using namespace pysupport;

PyObject *highs_error = nullptr;

namespace {

struct SolverObject {
    PyObject_HEAD std::shared_ptr<Solver> solver; // made in tp_new, so it is always there
};

const std::shared_ptr<Solver> &shared(PyObject *self) {
    return reinterpret_cast<SolverObject *>(self)->solver;
}

// The solver for everything that may not come in while it runs.
Solver &idle(PyObject *self) {
    Solver &solver = *shared(self);
    if (solver.running())
        fail(highs_error, "HiGHS is still running on this model");
    return solver;
}

void accepted(HighsInt status, const char *what) {
    if (status == kHighsStatusError)
        fail(highs_error, "HiGHS refused %s", what);
}

template <class Value> const Value *data_or_null(std::span<const Value> values) {
    return values.empty() ? nullptr : values.data();
}

// ---- life -----------------------------------------------------------------------------------------------------------

PyObject *solver_new(PyTypeObject *type, PyObject *args, PyObject *kwargs) {
    return border([&] {
        if (PyTuple_GET_SIZE(args) || (kwargs && PyDict_GET_SIZE(kwargs)))
            fail(PyExc_TypeError, "Solver() takes no arguments");
        if (!library_is_open())
            fail(highs_error, "no HiGHS library is open: call open_library(path) first");
        auto solver = std::make_shared<Solver>();
        Ref self = check(type->tp_alloc(type, 0));
        new (&self.as<SolverObject>()->solver) std::shared_ptr<Solver>(std::move(solver));
        return self;
    });
}

void solver_dealloc(PyObject *self) {
    PyTypeObject *type = Py_TYPE(self);
    auto &solver = reinterpret_cast<SolverObject *>(self)->solver;
    if (solver) {
        solver->interrupt(); // nobody can ask for the result of a run that goes on
        solver->stop_logging();
    }
    solver.~shared_ptr();
    type->tp_free(self);
    Py_DECREF(type);
}

// ---- the model ------------------------------------------------------------------------------------------------------

struct LoadArguments {
    int sense = 1, by_columns = 1;
    double offset = 0;
    PyObject *obj, *lb, *ub, *vtype, *lower, *upper, *start, *index, *value;

    LoadArguments(PyObject *args, PyObject *kwargs) {
        static const char *const names[] = {"sense", "offset", "obj",   "lb",    "ub",         "vtype", "lower",
                                            "upper", "start",  "index", "value", "by_columns", nullptr};
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "idOOOOOOOOO|p:load", const_cast<char **>(names), &sense,
                                         &offset, &obj, &lb, &ub, &vtype, &lower, &upper, &start, &index, &value,
                                         &by_columns))
            throw PythonError{};
    }
};

// Lengths and types are checked here; what the indices say is checked by HiGHS.
ModelArrays arrays_of(const LoadArguments &given) {
    ModelArrays model;
    auto cost = doubles(given.obj, "obj");
    npy_intp ncols = static_cast<npy_intp>(cost.size()), nrows = length_of(given.lower, "lower");
    auto start = integers(given.start, "start", (given.by_columns ? ncols : nrows) + 1);
    model.nnz = start.back();
    if (model.nnz < 0)
        fail(PyExc_ValueError, "start ends with %d", model.nnz);
    model.ncols = static_cast<HighsInt>(ncols);
    model.nrows = static_cast<HighsInt>(nrows);
    model.sense = given.sense;
    model.offset = given.offset;
    model.cost = data_or_null(cost);
    model.lb = numbers(given.lb, "lb", ncols);
    model.ub = numbers(given.ub, "ub", ncols);
    model.lower = numbers(given.lower, "lower", nrows);
    model.upper = numbers(given.upper, "upper", nrows);
    model.format = given.by_columns ? kHighsMatrixFormatColwise : kHighsMatrixFormatRowwise;
    model.start = start.data();
    model.index = data_or_null(integers(given.index, "index", model.nnz));
    model.value = data_or_null(doubles(given.value, "value", model.nnz));
    return model;
}

// Without the interpreter's lock, since millions of rows take most of a second: what HiGHS throws is kept until it is
// held again.
HighsInt load_aside(Solver &solver, const ModelArrays &model, std::exception_ptr &thrown) {
    try {
        return solver.load(model);
    } catch (const std::exception &) {
        thrown = std::current_exception();
        return kHighsStatusError;
    }
}

// What is read of the arguments, which the caller holds, stands until the call returns. No border around the part
// without the lock: see solver_wait.
PyObject *solver_load(PyObject *self, PyObject *args, PyObject *kwargs) {
    ModelArrays model;
    Ref read = Ref::steal(border([&] {
        LoadArguments given(args, kwargs);
        idle(self);
        model = arrays_of(given);
        if (given.vtype != Py_None)
            model.vtype = data_or_null(characters(given.vtype, "vtype", model.ncols));
        return Ref::none();
    }));
    if (!read)
        return nullptr;
    Solver &solver = *shared(self);
    std::exception_ptr thrown;
    HighsInt status;
    Py_BEGIN_ALLOW_THREADS status = load_aside(solver, model, thrown);
    Py_END_ALLOW_THREADS return border([&] {
        if (thrown)
            std::rethrow_exception(thrown);
        accepted(status, "the model");
        return Ref::none();
    });
}

PyObject *solver_counts(PyObject *self, PyObject *) {
    return border([&] {
        void *highs = idle(self).highs();
        return check(Py_BuildValue("iiii", library().getNumCol(highs), library().getNumRow(highs),
                                   library().getNumNz(highs), library().getHessianNumNz(highs)));
    });
}

// The entries of a full array at the given positions, as HiGHS' calls by set want them.
std::vector<double> gathered(const Numbers &all, std::span<const int32_t> positions) {
    std::vector<double> values(positions.size());
    for (size_t k = 0; k < positions.size(); ++k)
        values[k] = all[positions[k]];
    return values;
}

PyObject *solver_change_bounds(PyObject *self, PyObject *args) {
    return border([&] {
        PyObject *where, *lb, *ub;
        if (!PyArg_ParseTuple(args, "OOO:change_bounds", &where, &lb, &ub))
            throw PythonError{};
        Solver &solver = idle(self);
        HighsInt n = library().getNumCol(solver.highs());
        auto set = ascending_positions(where, "positions", n);
        auto lower = gathered(numbers(lb, "lb", n), set), upper = gathered(numbers(ub, "ub", n), set);
        accepted(library().changeColsBoundsBySet(solver.highs(), static_cast<HighsInt>(set.size()), set.data(),
                                                 lower.data(), upper.data()),
                 "changed variable bounds");
        return Ref::none();
    });
}

PyObject *solver_change_costs(PyObject *self, PyObject *args) {
    return border([&] {
        PyObject *where, *obj;
        if (!PyArg_ParseTuple(args, "OO:change_costs", &where, &obj))
            throw PythonError{};
        Solver &solver = idle(self);
        HighsInt n = library().getNumCol(solver.highs());
        auto set = ascending_positions(where, "positions", n);
        auto costs = gathered(numbers(obj, "obj", n), set);
        accepted(
            library().changeColsCostBySet(solver.highs(), static_cast<HighsInt>(set.size()), set.data(), costs.data()),
            "changed objective coefficients");
        return Ref::none();
    });
}

PyObject *solver_change_sides(PyObject *self, PyObject *args) {
    return border([&] {
        PyObject *where, *lower, *upper;
        if (!PyArg_ParseTuple(args, "OOO:change_sides", &where, &lower, &upper))
            throw PythonError{};
        Solver &solver = idle(self);
        HighsInt n = library().getNumRow(solver.highs());
        auto set = ascending_positions(where, "positions", n);
        auto below = gathered(numbers(lower, "lower", n), set), above = gathered(numbers(upper, "upper", n), set);
        accepted(library().changeRowsBoundsBySet(solver.highs(), static_cast<HighsInt>(set.size()), set.data(),
                                                 below.data(), above.data()),
                 "changed row sides");
        return Ref::none();
    });
}

void refuse_outside(HighsInt position, HighsInt end, const char *what) {
    if (position < 0 || position >= end)
        fail(PyExc_ValueError, "%s %d is outside 0 .. %d", what, position, end - 1);
}

PyObject *solver_change_coefs(PyObject *self, PyObject *args) {
    return border([&] {
        PyObject *rows, *vars, *values;
        if (!PyArg_ParseTuple(args, "OOO:change_coefs", &rows, &vars, &values))
            throw PythonError{};
        Solver &solver = idle(self);
        auto row = integers(rows, "rows");
        auto var = integers(vars, "vars", static_cast<npy_intp>(row.size()));
        auto value = doubles(values, "values", static_cast<npy_intp>(row.size()));
        HighsInt nrows = library().getNumRow(solver.highs()), ncols = library().getNumCol(solver.highs());
        for (size_t k = 0; k < row.size(); ++k) {
            refuse_outside(row[k], nrows, "row");
            refuse_outside(var[k], ncols, "variable");
        }
        for (size_t k = 0; k < row.size(); ++k)
            accepted(library().changeCoeff(solver.highs(), row[k], var[k], value[k]), "a changed coefficient");
        return Ref::none();
    });
}

PyObject *solver_change_objective(PyObject *self, PyObject *args) {
    return border([&] {
        int sense;
        double offset;
        if (!PyArg_ParseTuple(args, "id:change_objective", &sense, &offset))
            throw PythonError{};
        Solver &solver = idle(self);
        accepted(library().changeObjectiveSense(solver.highs(), sense), "the objective sense");
        accepted(library().changeObjectiveOffset(solver.highs(), offset), "the objective constant");
        return Ref::none();
    });
}

PyObject *solver_read(PyObject *self, PyObject *path) {
    return border([&] {
        Solver &solver = idle(self);
        Ref bytes;
        PyObject *converted = nullptr;
        if (!PyUnicode_FSConverter(path, &converted))
            throw PythonError{};
        bytes = Ref::steal(converted);
        accepted(library().readModel(solver.highs(), PyBytes_AS_STRING(bytes.get())), "the file");
        return Ref::none();
    });
}

void put(const Ref &dict, const char *key, const Ref &value) {
    check_status(PyDict_SetItemString(dict.get(), key, value.get()));
}

double *data_of(const Ref &array) {
    return static_cast<double *>(PyArray_DATA(as_array(array)));
}
HighsInt *indices_of(const Ref &array) {
    return static_cast<HighsInt *>(PyArray_DATA(as_array(array)));
}

PyObject *solver_model(PyObject *self, PyObject *) {
    return border([&] {
        need_numpy();
        void *highs = idle(self).highs();
        HighsInt ncols = library().getNumCol(highs), nrows = library().getNumRow(highs),
                 nnz = library().getNumNz(highs);
        Ref obj = new_doubles(ncols), lb = new_doubles(ncols), ub = new_doubles(ncols), vtype = new_integers(ncols);
        Ref lower = new_doubles(nrows), upper = new_doubles(nrows);
        Ref start = new_integers(ncols + 1), index = new_integers(nnz), value = new_doubles(nnz);
        HighsInt sense = 1;
        double offset = 0;
        for (HighsInt j = 0; j < ncols; ++j)
            indices_of(vtype)[j] = kHighsVarTypeContinuous; // HiGHS leaves it alone for an LP
        accepted(library().getLp(highs, kHighsMatrixFormatColwise, &ncols, &nrows, &nnz, &sense, &offset, data_of(obj),
                                 data_of(lb), data_of(ub), data_of(lower), data_of(upper), indices_of(start),
                                 indices_of(index), data_of(value), indices_of(vtype)),
                 "to show its model");
        indices_of(start)[ncols] = nnz;
        Ref dict = check(PyDict_New());
        put(dict, "sense", check(PyLong_FromLong(sense)));
        put(dict, "offset", check(PyFloat_FromDouble(offset)));
        put(dict, "obj", obj);
        put(dict, "lb", lb);
        put(dict, "ub", ub);
        put(dict, "integrality", vtype);
        put(dict, "lower", lower);
        put(dict, "upper", upper);
        put(dict, "start", start);
        put(dict, "index", index);
        put(dict, "value", value);
        return dict;
    });
}

// ---- options --------------------------------------------------------------------------------------------------------

const char *option_name(PyObject *name) {
    if (!PyUnicode_Check(name))
        fail(PyExc_TypeError, "the name of an option is a string, not %R", name);
    const char *text = PyUnicode_AsUTF8(name);
    if (!text)
        throw PythonError{};
    return text;
}

PyObject *solver_set_option(PyObject *self, PyObject *args) {
    return border([&] {
        PyObject *name, *value;
        if (!PyArg_ParseTuple(args, "OO:set_option", &name, &value))
            throw PythonError{};
        set_option(idle(self).highs(), option_name(name), value);
        return Ref::none();
    });
}

PyObject *solver_get_option(PyObject *self, PyObject *name) {
    return border([&] { return get_option(idle(self).highs(), option_name(name)); });
}

PyObject *solver_reset_options(PyObject *self, PyObject *) {
    return border([&] {
        Solver &solver = idle(self);
        accepted(library().resetOptions(solver.highs()), "to reset its options");
        solver.set_house_defaults();
        return Ref::none();
    });
}

// ---- the run --------------------------------------------------------------------------------------------------------

PyObject *solver_set_start(PyObject *self, PyObject *values) {
    return border([&] {
        Solver &solver = idle(self);
        HighsInt n = library().getNumCol(solver.highs());
        auto start = doubles(values, "start", n);
        std::vector<HighsInt> known;
        for (HighsInt j = 0; j < n; ++j)
            if (!std::isnan(start[j]))
                known.push_back(j);
        HighsInt count = static_cast<HighsInt>(known.size());
        if (count == n)
            accepted(library().setSolution(solver.highs(), start.data(), nullptr, nullptr, nullptr), "the start");
        else if (count > 0)
            accepted(library().setSparseSolution(solver.highs(), count, known.data(),
                                                 gathered({start.data(), 1}, known).data()),
                     "the start");
        return check(PyLong_FromLong(count));
    });
}

PyObject *solver_start(PyObject *self, PyObject *args) {
    return border([&] {
        int keep_log = 0;
        double tree_iterations = HUGE_VAL;
        if (!PyArg_ParseTuple(args, "|pd:start", &keep_log, &tree_iterations))
            throw PythonError{};
        idle(self).start(keep_log, tree_iterations);
        return Ref::none();
    });
}

// No border here: a daemon thread that comes back while the interpreter shuts down ends inside Py_END_ALLOW_THREADS by
// unwinding the stack, which a catch-all or a noexcept function on the way would turn into an abort.
PyObject *solver_wait(PyObject *self, PyObject *seconds) {
    double limit = PyFloat_AsDouble(seconds);
    if (limit == -1.0 && PyErr_Occurred())
        return nullptr;
    if (!(limit >= 0 && limit <= 3600)) {
        PyErr_Format(PyExc_ValueError, "wait() takes 0 to 3600 seconds, not %R", seconds);
        return nullptr;
    }
    Solver *solver = shared(self).get(); // the caller holds self, and self the solver
    bool over;
    Py_BEGIN_ALLOW_THREADS over = solver->wait(limit);
    Py_END_ALLOW_THREADS return PyBool_FromLong(over);
}

Ref number_or_none(double value, double missing) {
    return value == missing ? Ref::none() : check(PyFloat_FromDouble(value));
}

PyObject *solver_progress(PyObject *self, PyObject *) {
    return border([&] {
        Progress p = shared(self)->progress();
        Ref tuple = check(PyTuple_New(5));
        auto put_item = [&](Py_ssize_t i, Ref item) { PyTuple_SET_ITEM(tuple.get(), i, item.release()); };
        put_item(0, check(PyFloat_FromDouble(p.seconds)));
        put_item(1, check(PyFloat_FromDouble(p.iterations)));
        put_item(2, number_or_none(p.nodes, -1));
        put_item(3, std::isfinite(p.incumbent) ? check(PyFloat_FromDouble(p.incumbent)) : Ref::none());
        put_item(4, std::isfinite(p.bound) ? check(PyFloat_FromDouble(p.bound)) : Ref::none());
        return tuple;
    });
}

PyObject *solver_take_log(PyObject *self, PyObject *) {
    return border([&] {
        std::string text = shared(self)->take_log();
        return check(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
    });
}

PyObject *solver_interrupt(PyObject *self, PyObject *) {
    shared(self)->interrupt();
    Py_RETURN_NONE;
}

PyObject *solver_running(PyObject *self, void *) {
    return PyBool_FromLong(shared(self)->running());
}

double double_info(void *highs, const char *name) {
    double value = NAN;
    library().getDoubleInfoValue(highs, name, &value);
    return value;
}

long int_info(void *highs, const char *name) {
    HighsInt value = 0;
    library().getIntInfoValue(highs, name, &value);
    return value;
}

PyObject *solver_result(PyObject *self, PyObject *) {
    return border([&] {
        Solver &solver = idle(self);
        void *highs = solver.highs();
        if (!solver.failure().empty())
            fail(highs_error, "HiGHS failed: %s", solver.failure().c_str());
        int64_t nodes = 0;
        library().getInt64InfoValue(highs, "mip_node_count", &nodes);
        double iterations = 0;
        for (const char *name :
             {"simplex_iteration_count", "ipm_iteration_count", "crossover_iteration_count", "pdlp_iteration_count"})
            iterations += static_cast<double>(std::max(0L, int_info(highs, name)));
        return check(Py_BuildValue(
            "{s:i,s:i,s:l,s:l,s:d,s:d,s:d,s:d,s:L}", "return_status", solver.return_status(), "model_status",
            library().getModelStatus(highs), "primal", int_info(highs, "primal_solution_status"), "dual",
            int_info(highs, "dual_solution_status"), "objective", double_info(highs, "objective_function_value"),
            "bound", double_info(highs, "mip_dual_bound"), "seconds", library().getRunTime(highs), "iterations",
            iterations, "nodes", static_cast<long long>(std::max<int64_t>(0, nodes))));
    });
}

double *column(PyObject *array, const char *name, HighsInt n) {
    return array == Py_None ? nullptr : writable_doubles(array, name, n).data();
}

PyObject *solver_solution(PyObject *self, PyObject *args) {
    return border([&] {
        PyObject *x, *rc, *pi;
        if (!PyArg_ParseTuple(args, "OOO:solution", &x, &rc, &pi))
            throw PythonError{};
        void *highs = idle(self).highs();
        HighsInt ncols = library().getNumCol(highs), nrows = library().getNumRow(highs);
        double *to_x = column(x, "x", ncols), *to_rc = column(rc, "rc", ncols), *to_pi = column(pi, "pi", nrows);
        accepted(library().getSolution(highs, to_x, to_rc, nullptr, to_pi), "to show its solution");
        return Ref::none();
    });
}

// ---- table ----------------------------------------------------------------------------------------------------------

template <class Function> PyCFunction as_method(Function function) {
    return reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function));
}

PyMethodDef methods[] = {
    {"load", as_method(solver_load), METH_VARARGS | METH_KEYWORDS,
     "load(sense, offset, obj, lb, ub, vtype, lower, upper, start, index, value, by_columns=True)\n\n"
     "Hands a whole model over; HiGHS copies it. vtype None or all b'C' is a pure LP."},
    {"counts", solver_counts, METH_NOARGS, "(columns, rows, nonzeros, Hessian nonzeros) as HiGHS holds them."},
    {"change_bounds", solver_change_bounds, METH_VARARGS,
     "change_bounds(positions, lb, ub): positions ascend, lb and ub are the full arrays."},
    {"change_costs", solver_change_costs, METH_VARARGS, "change_costs(positions, obj): obj is the full array."},
    {"change_sides", solver_change_sides, METH_VARARGS,
     "change_sides(positions, lower, upper): full arrays of the rows."},
    {"change_coefs", solver_change_coefs, METH_VARARGS, "change_coefs(rows, vars, values): entries of the matrix."},
    {"change_objective", solver_change_objective, METH_VARARGS, "change_objective(sense, offset)"},
    {"read", solver_read, METH_O, "read(path): HiGHS' own file reader."},
    {"model", solver_model, METH_NOARGS, "The model as HiGHS holds it: a dictionary of arrays, the matrix by columns."},
    {"set_option", solver_set_option, METH_VARARGS, "set_option(name, value)"},
    {"get_option", solver_get_option, METH_O, "get_option(name)"},
    {"reset_options", solver_reset_options, METH_NOARGS,
     "All options to HiGHS' defaults, but silent and with all coefficients kept."},
    {"set_start", solver_set_start, METH_O,
     "set_start(values): where a tree search may begin; NaN where nothing is known. Returns how many are known."},
    {"start", solver_start, METH_VARARGS,
     "start(keep_log=False, tree_iterations=inf): runs HiGHS on a thread of its own and returns at once. A tree search "
     "is interrupted beyond so many LP iterations."},
    {"wait", solver_wait, METH_O, "wait(seconds): True once the run is over. Other Python threads run meanwhile."},
    {"progress", solver_progress, METH_NOARGS,
     "(seconds, iterations, nodes, incumbent, bound); None where there is none."},
    {"take_log", solver_take_log, METH_NOARGS, "What the engine said since the last call."},
    {"interrupt", solver_interrupt, METH_NOARGS, "Asks the run to end at its next check."},
    {"result", solver_result, METH_NOARGS, "Status and figures of the last run."},
    {"solution", solver_solution, METH_VARARGS, "solution(x, rc, pi): writes into the arrays; None where not wanted."},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef properties[] = {
    {"running", solver_running, nullptr, "Whether a run is under way.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void *>(solver_new)},
    {Py_tp_dealloc, reinterpret_cast<void *>(solver_dealloc)},
    {Py_tp_methods, methods},
    {Py_tp_getset, properties},
    {Py_tp_doc,
     const_cast<char *>("One HiGHS instance. Calls other than wait, progress, take_log, interrupt and running are "
                        "refused while it runs.")},
    {0, nullptr},
};

PyType_Spec spec = {"tarvopy._highs.Solver", sizeof(SolverObject), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE,
                    slots};

} // namespace

Ref make_solver_type(PyObject *module) {
    return check(PyType_FromModuleAndSpec(module, &spec, nullptr));
}

} // namespace tarvopy::highs
