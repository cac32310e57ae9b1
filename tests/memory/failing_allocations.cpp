// Makes requests for memory fail, in the libraries of one folder only: the next but n, or that one and all after it.
//
//   install(folder)           once
//   arm(n, forever, texts)    ...  disarm()  on the thread that is to meet the failures
//   install_arrays(t)         NumPy's table t of functions, again whenever another library may have bound it
//   install_type(type)        objects of this type come from tp_alloc
//
// NumPy, SciPy and CPython do not survive every failure of their own, so the allocator as a whole cannot be made to
// fail. Instead the table through which a library calls other libraries (its global offset table) is rewritten for the
// functions below: only what the library itself asks for passes here. A call into Python's C API counts as a request,
// as each of them may end in MemoryError.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#define NPY_NO_DEPRECATED_API NPY_2_0_API_VERSION
#define NPY_TARGET_VERSION NPY_2_0_API_VERSION
#include <numpy/ndarrayobject.h>

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

thread_local bool armed = false, forever = false, texts = true;
thread_local long countdown = 0, seen = 0, failed = 0;

bool refuse() {
    if (!armed)
        return false;
    seen++;
    if (--countdown > 0 || (countdown < 0 && !forever))
        return false;
    failed++;
    return true;
}

template <class Function> void *address(Function *function) {
    return reinterpret_cast<void *>(function);
}

// ---- the C and C++ heaps --------------------------------------------------------------------------------------------
void *failing_malloc(size_t bytes) {
    return refuse() ? nullptr : std::malloc(bytes);
}
void *failing_calloc(size_t n, size_t bytes) {
    return refuse() ? nullptr : std::calloc(n, bytes);
}
void *failing_realloc(void *block, size_t bytes) {
    return refuse() ? nullptr : std::realloc(block, bytes);
}
void *failing_mmap(void *at, size_t bytes, int protection, int flags, int file, off_t offset) {
    return refuse() ? MAP_FAILED : mmap(at, bytes, protection, flags, file, offset);
}
void *failing_mremap(void *old, size_t before, size_t bytes, int flags) {
    return refuse() ? MAP_FAILED : mremap(old, before, bytes, flags);
}
void *failing_new(size_t bytes) {
    if (refuse())
        throw std::bad_alloc();
    return ::operator new(bytes);
}
void *failing_text(size_t bytes) {
    return texts ? failing_new(bytes) : ::operator new(bytes);
}
void *failing_new_quietly(size_t bytes, const std::nothrow_t &quietly) {
    return refuse() ? nullptr : ::operator new(bytes, quietly);
}
void *failing_new_array(size_t bytes) {
    if (refuse())
        throw std::bad_alloc();
    return ::operator new[](bytes);
}

// ---- Python's C API -------------------------------------------------------------------------------------------------
void *failing_raw(size_t bytes) {
    return refuse() ? nullptr : PyObject_Malloc(bytes);
}
PyObject *failing_float(double value) {
    return refuse() ? PyErr_NoMemory() : PyFloat_FromDouble(value);
}
char *failing_double_text(double value, char format, int precision, int flags, int *type) {
    return refuse() ? reinterpret_cast<char *>(PyErr_NoMemory())
                    : PyOS_double_to_string(value, format, precision, flags, type);
}
PyObject *failing_format(const char *format, ...) {
    if (refuse())
        return PyErr_NoMemory();
    va_list arguments;
    va_start(arguments, format);
    PyObject *text = PyUnicode_FromFormatV(format, arguments);
    va_end(arguments);
    return text;
}
int failing_truth(PyObject *object) {
    if (PyBool_Check(object) || !refuse())
        return PyObject_IsTrue(object);
    PyErr_NoMemory();
    return -1;
}
PyObject *failing_error(PyObject *type, const char *format, ...) {
    if (refuse())
        return PyErr_NoMemory();
    va_list arguments;
    va_start(arguments, format);
    PyErr_FormatV(type, format, arguments);
    va_end(arguments);
    return nullptr;
}
PyObject *failing_build(const char *format, ...) {
    if (refuse())
        return PyErr_NoMemory();
    va_list arguments;
    va_start(arguments, format);
    PyObject *value = Py_VaBuildValue(format, arguments);
    va_end(arguments);
    return value;
}
PyObject *failing_pack(Py_ssize_t n, ...) {
    PyObject *tuple = refuse() ? PyErr_NoMemory() : PyTuple_New(n);
    if (!tuple)
        return nullptr;
    va_list arguments;
    va_start(arguments, n);
    for (Py_ssize_t i = 0; i < n; i++)
        PyTuple_SET_ITEM(tuple, i, Py_NewRef(va_arg(arguments, PyObject *)));
    va_end(arguments);
    return tuple;
}
std::vector<PyObject *> listed(va_list arguments) {
    std::vector<PyObject *> all;
    while (PyObject *argument = va_arg(arguments, PyObject *))
        all.push_back(argument);
    return all;
}
PyObject *failing_call(PyObject *callable, ...) {
    if (refuse())
        return PyErr_NoMemory();
    va_list arguments;
    va_start(arguments, callable);
    const std::vector<PyObject *> all = listed(arguments);
    va_end(arguments);
    return PyObject_Vectorcall(callable, all.data(), all.size(), nullptr);
}
PyObject *failing_method(PyObject *object, PyObject *name, ...) {
    if (refuse())
        return PyErr_NoMemory();
    va_list arguments;
    va_start(arguments, name);
    std::vector<PyObject *> all = listed(arguments);
    va_end(arguments);
    all.insert(all.begin(), object);
    return PyObject_VectorcallMethod(name, all.data(), all.size(), nullptr);
}

// Functions that take up to six pointers or whole numbers, which travel alike. First those that return NULL with an
// error, then, from `statuses` on, those that return -1 with one.
constexpr const char *plain[] = {"_PyObject_New",
                                 "_PyObject_GC_New",
                                 "PyList_New",
                                 "PyList_AsTuple",
                                 "PyList_GetSlice",
                                 "PyTuple_New",
                                 "PyTuple_GetSlice",
                                 "PyDict_New",
                                 "PyDict_Copy",
                                 "PyDict_Keys",
                                 "PyLong_FromLong",
                                 "PyLong_FromLongLong",
                                 "PyLong_FromSsize_t",
                                 "PyLong_FromSize_t",
                                 "PyUnicode_FromString",
                                 "PyUnicode_FromStringAndSize",
                                 "PyUnicode_InternFromString",
                                 "PyUnicode_DecodeUTF8",
                                 "PyUnicode_Join",
                                 "PyUnicode_Substring",
                                 "PyUnicode_FromFormatV",
                                 "PyUnicode_AsUTF8",
                                 "PyUnicode_AsUTF8AndSize",
                                 "PyCapsule_New",
                                 "PySlice_New",
                                 "PySeqIter_New",
                                 "PyObject_GetIter",
                                 "PyObject_Str",
                                 "PyObject_Repr",
                                 "PyObject_Format",
                                 "PyObject_GetAttr",
                                 "PyObject_GetAttrString",
                                 "PyObject_GetItem",
                                 "PyObject_Call",
                                 "PyObject_CallOneArg",
                                 "PyObject_CallNoArgs",
                                 "PyObject_Vectorcall",
                                 "PyObject_VectorcallMethod",
                                 "PySequence_List",
                                 "PySequence_Tuple",
                                 "PySequence_Fast",
                                 "PySequence_GetItem",
                                 "PySequence_InPlaceConcat",
                                 "PyIter_Next",
                                 "PyImport_ImportModule",
                                 "PyObject_Dir",
                                 "PyUnicode_FSConverter",
                                 "PyErr_SetString",
                                 "PyNumber_Add",
                                 "PyNumber_Subtract",
                                 "PyNumber_Multiply",
                                 "PyNumber_TrueDivide",
                                 "PyNumber_Power",
                                 "PyNumber_InPlaceAdd",
                                 "PyNumber_InPlaceMultiply",
                                 "PyNumber_MatrixMultiply",
                                 "PyNumber_Index",
                                 "PyType_GenericNew",
                                 "PyCMethod_New",
                                 "PyList_Append",
                                 "PyList_Extend",
                                 "PyList_SetSlice",
                                 "PyDict_SetItem",
                                 "PyDict_SetItemString",
                                 "PyDict_Update",
                                 "PyDict_Merge",
                                 "PyObject_SetAttr",
                                 "PyObject_SetAttrString",
                                 "PyObject_SetItem",
                                 "PyObject_IsInstance",
                                 "PyObject_RichCompareBool",
                                 "PyObject_Size",
                                 "PyObject_LengthHint",
                                 "PyNumber_AsSsize_t",
                                 "PyList_Sort"};
constexpr size_t functions = std::size(plain), statuses = functions - 16;
std::array<void *, functions> originals;

template <size_t K> void *failing_plain(void *a, void *b, void *c, void *d, void *e, void *f) {
    if (refuse()) {
        PyErr_NoMemory();
        return reinterpret_cast<void *>(K < statuses ? 0L : -1L);
    }
    using Function = void *(*)(void *, void *, void *, void *, void *, void *);
    return reinterpret_cast<Function>(originals[K])(a, b, c, d, e, f);
}

struct Hook {
    std::string name;
    void *replacement;
};

template <size_t... K> void add_plain(std::vector<Hook> &hooks, std::index_sequence<K...>) {
    ((originals[K] = dlsym(RTLD_DEFAULT, plain[K]),
      originals[K] ? hooks.push_back({plain[K], address(failing_plain<K>)}) : void()),
     ...);
}

std::vector<Hook> all_hooks() {
    std::vector<Hook> hooks = {{"malloc", address(failing_malloc)},
                               {"calloc", address(failing_calloc)},
                               {"realloc", address(failing_realloc)},
                               {"mmap", address(failing_mmap)},
                               {"mremap", address(failing_mremap)},
                               {"_Znwm", address(failing_new)},
                               {"_Znam", address(failing_new_array)},
                               {"_ZnwmRKSt9nothrow_t", address(failing_new_quietly)},
                               {"PyObject_Malloc", address(failing_raw)},
                               {"PyFloat_FromDouble", address(failing_float)},
                               {"PyOS_double_to_string", address(failing_double_text)},
                               {"PyUnicode_FromFormat", address(failing_format)},
                               {"PyObject_IsTrue", address(failing_truth)},
                               {"PyErr_Format", address(failing_error)},
                               {"Py_BuildValue", address(failing_build)},
                               {"PyTuple_Pack", address(failing_pack)},
                               {"PyObject_CallFunctionObjArgs", address(failing_call)},
                               {"PyObject_CallMethodObjArgs", address(failing_method)}};
    add_plain(hooks, std::make_index_sequence<functions>());
    return hooks;
}

// ---- NumPy's C API: a table of pointers, of which the libraries get a copy that fails -------------------------------

struct ArrayFunction {
    size_t place;  // in the table
    int reference; // the argument whose reference it takes over, or -1
    bool status;   // -1 is its error, not NULL
};

constexpr size_t table_size = 379; // of the headers; an older NumPy has fewer, and other tables behind them
std::array<void *, table_size> numpy_functions, failing_table;

// With a table that holds each place's number, the macros of NumPy's headers give the places.
std::vector<ArrayFunction> array_functions() {
    std::array<void *, table_size> PyArray_API;
    for (size_t i = 0; i < table_size; i++)
        PyArray_API[i] = reinterpret_cast<void *>(i);
#define PLACE(function) reinterpret_cast<size_t>(&function)
    return {{PLACE(PyArray_New), -1, false},         {PLACE(PyArray_NewFromDescr), 1, false},
            {PLACE(PyArray_FromArray), 1, false},    {PLACE(PyArray_FromAny), 1, false},
            {PLACE(PyArray_CheckFromAny), 1, false}, {PLACE(PyArray_NewCopy), -1, false},
            {PLACE(PyArray_NewLikeArray), 2, false}, {PLACE(PyArray_Zeros), 2, false},
            {PLACE(PyArray_Empty), 2, false},        {PLACE(PyArray_Arange), -1, false},
            {PLACE(PyArray_Ravel), -1, false},       {PLACE(PyArray_Flatten), -1, false},
            {PLACE(PyArray_TakeFrom), -1, false},    {PLACE(PyArray_Newshape), -1, false},
            {PLACE(PyArray_EnsureArray), 0, false},  {PLACE(PyArray_ToList), -1, false},
            {PLACE(PyArray_IterNew), -1, false},     {PLACE(PyArray_MultiIterNew), -1, false},
            {PLACE(NpyIter_MultiNew), -1, false},    {PLACE(PyArray_DescrNewFromType), -1, false},
            {PLACE(PyArray_CopyInto), -1, true},     {PLACE(PyArray_CopyAnyInto), -1, true},
            {PLACE(PyArray_SetBaseObject), 1, true}};
#undef PLACE
}

const std::vector<ArrayFunction> hooked = array_functions();

// Ten arguments: what a function has not is there on the stack, and is not looked at.
template <size_t K>
void *failing_array(void *a, void *b, void *c, void *d, void *e, void *f, void *g, void *h, void *i, void *j) {
    if (refuse()) {
        void *first[] = {a, b, c};
        if (hooked[K].reference >= 0)
            Py_XDECREF(static_cast<PyObject *>(first[hooked[K].reference]));
        PyErr_NoMemory();
        return reinterpret_cast<void *>(hooked[K].status ? -1L : 0L);
    }
    using Function = void *(*)(void *, void *, void *, void *, void *, void *, void *, void *, void *, void *);
    return reinterpret_cast<Function>(numpy_functions[hooked[K].place])(a, b, c, d, e, f, g, h, i, j);
}

template <size_t... K> void add_array_functions(std::index_sequence<K...>) {
    ((failing_table[hooked[K].place] = address(failing_array<K>)), ...);
}

PyObject *failing_object(PyTypeObject *type, Py_ssize_t items) {
    return refuse() ? PyErr_NoMemory() : PyType_GenericAlloc(type, items);
}

// ---- the tables of a library ----------------------------------------------------------------------------------------
struct Search {
    const char *folder;
    std::vector<Hook> hooks;
    int replaced;
    void *table = nullptr; // NumPy's
};

void write_entry(ElfW(Addr) place, void *value) {
    const auto page = static_cast<ElfW(Addr)>(sysconf(_SC_PAGESIZE));
    const ElfW(Addr) first = place / page * page;
    if (mprotect(reinterpret_cast<void *>(first), place + sizeof(void *) - first, PROT_READ | PROT_WRITE) == 0)
        *reinterpret_cast<void **>(place) = value;
}

void replace(Search &search, ElfW(Addr) base, const ElfW(Rela) * entries, size_t n, const ElfW(Sym) * symbols,
             const char *text) {
    for (size_t i = 0; i < n; i++) {
        const auto kind = ELF64_R_TYPE(entries[i].r_info);
        if (kind != R_X86_64_JUMP_SLOT && kind != R_X86_64_GLOB_DAT)
            continue;
        const char *name = text + symbols[ELF64_R_SYM(entries[i].r_info)].st_name;
        for (const Hook &hook : search.hooks)
            if (hook.name == name) {
                write_entry(base + entries[i].r_offset, hook.replacement);
                search.replaced++;
            }
    }
}

// A variable of the library that points to NumPy's table points to the failing one from now on.
int rebind(dl_phdr_info *library, size_t, void *argument) {
    auto &search = *static_cast<Search *>(argument);
    if (!std::strstr(library->dlpi_name, search.folder))
        return 0;
    for (int i = 0; i < library->dlpi_phnum; i++) {
        const ElfW(Phdr) &segment = library->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_W))
            continue;
        auto *words = reinterpret_cast<void **>(library->dlpi_addr + segment.p_vaddr); // data of pointers: aligned
        for (size_t k = 0; k < segment.p_memsz / sizeof(void *); k++)
            if (words[k] == search.table) {
                words[k] = failing_table.data();
                search.replaced++;
            }
    }
    return 0;
}

int visit(dl_phdr_info *library, size_t, void *argument) {
    auto &search = *static_cast<Search *>(argument);
    if (!std::strstr(library->dlpi_name, search.folder))
        return 0;
    const ElfW(Dyn) *dynamic = nullptr;
    for (int i = 0; i < library->dlpi_phnum; i++)
        if (library->dlpi_phdr[i].p_type == PT_DYNAMIC)
            dynamic = reinterpret_cast<const ElfW(Dyn) *>(library->dlpi_addr + library->dlpi_phdr[i].p_vaddr);
    ElfW(Addr) found[DT_NUM] = {};
    for (; dynamic && dynamic->d_tag != DT_NULL; dynamic++)
        if (dynamic->d_tag < DT_NUM)
            found[dynamic->d_tag] = dynamic->d_un.d_ptr;
    const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(found[DT_SYMTAB]);
    const auto *text = reinterpret_cast<const char *>(found[DT_STRTAB]);
    const auto entries = [&](int table, int bytes) {
        replace(search, library->dlpi_addr, reinterpret_cast<const ElfW(Rela) *>(found[table]),
                found[bytes] / sizeof(ElfW(Rela)), symbols, text);
    };
    entries(DT_JMPREL, DT_PLTRELSZ);
    entries(DT_RELA, DT_RELASZ);
    return 0;
}

} // namespace

// Returns how many entries of tables were replaced; a library that is loaded later is not met.
extern "C" int install(const char *folder) {
    Search search{folder, all_hooks(), 0};
    dl_iterate_phdr(visit, &search);
    // Long texts get their memory inside the C++ library.
    Search standard{"/libstdc++.so", {{"_Znwm", address(failing_text)}}, 0};
    dl_iterate_phdr(visit, &standard);
    return search.replaced && standard.replaced ? search.replaced + standard.replaced : 0;
}

// Returns how many variables now point to the failing table.
extern "C" int install_arrays(const char *folder, void *table) {
    std::memcpy(numpy_functions.data(), table, sizeof numpy_functions);
    failing_table = numpy_functions;
    add_array_functions(std::make_index_sequence<23>());
    Search search{folder, {}, 0, table};
    dl_iterate_phdr(rebind, &search);
    return search.replaced;
}

extern "C" void install_type(PyObject *type) {
    if (auto *slots = reinterpret_cast<PyTypeObject *>(type); slots->tp_alloc == PyType_GenericAlloc)
        slots->tp_alloc = failing_object;
}

// Request number n from here (counted from 1) fails, and with `on` every later one; `also` those for long texts.
extern "C" void arm(long n, int on, int also) {
    texts = also != 0;
    countdown = n;
    forever = on != 0;
    seen = failed = 0;
    armed = true;
}

// Returns how many requests failed.
extern "C" long disarm() {
    armed = false;
    return failed;
}

extern "C" long requests() {
    return seen;
}
