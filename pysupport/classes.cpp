#include "pysupport/classes.h"

namespace pysupport {

namespace {

PyMethodDef definition(const char *name, MethodFunction function, int flags, const char *doc) {
    return {name, reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(function)),
            METH_FASTCALL | METH_KEYWORDS | flags, doc};
}

// Python's own property over the getter, as a class statement would make it: tools that look for properties find it.
// A read costs a few ns more than with a native descriptor.
Ref read_only(PyTypeObject *base, Member &member) {
    // Getters ignore their second argument: NULL here, the closure of a native descriptor otherwise.
    member.method = {member.property.name,
                     reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(member.property.get)), METH_NOARGS,
                     nullptr};
    Ref getter = check(PyDescr_NewMethod(base, &member.method));
    return check(PyObject_CallFunction(reinterpret_cast<PyObject *>(&PyProperty_Type), "OOOs", getter.get(), Py_None,
                                       Py_None, member.property.doc));
}

Ref descriptor(PyTypeObject *base, Member &member) {
    switch (member.kind) {
    case Member::Method:
        return check(PyDescr_NewMethod(base, &member.method));
    case Member::ClassMethod:
        return check(PyDescr_NewClassMethod(base, &member.method));
    case Member::StaticMethod: {
        Ref function = check(PyCFunction_NewEx(&member.method, nullptr, nullptr));
        return check(PyStaticMethod_New(function.get()));
    }
    case Member::Property:
        return member.property.set ? check(PyDescr_NewGetSet(base, &member.property)) : read_only(base, member);
    }
    Py_UNREACHABLE();
}

} // namespace

Member method(const char *name, MethodFunction function, const char *doc) {
    return {Member::Method, definition(name, function, 0, doc), {}};
}

Member class_method(const char *name, MethodFunction function, const char *doc) {
    return {Member::ClassMethod, definition(name, function, METH_CLASS, doc), {}};
}

Member static_method(const char *name, MethodFunction function, const char *doc) {
    // The flag METH_STATIC belongs to type slots; here the staticmethod object says it.
    return {Member::StaticMethod, definition(name, function, 0, doc), {}};
}

Member property(const char *name, PropertyGet get, const char *doc) {
    return property(name, get, nullptr, doc);
}

Member property(const char *name, PropertyGet get, PropertySet set, const char *doc) {
    return {Member::Property, {}, {name, get, set, doc, nullptr}};
}

void add_members(PyObject *namespace_dict, PyTypeObject *base, std::span<Member> members) {
    for (Member &member : members) {
        const char *name = member.kind == Member::Property ? member.property.name : member.method.ml_name;
        Ref made = descriptor(base, member);
        check_status(PyDict_SetItemString(namespace_dict, name, made.get()));
    }
}

Ref new_namespace(const char *module, const char *qualname, const char *doc) {
    Ref dict = check(PyDict_New());
    auto put = [&](const char *key, const char *text) {
        Ref value = check(PyUnicode_FromString(text));
        check_status(PyDict_SetItemString(dict.get(), key, value.get()));
    };
    put("__module__", module);
    put("__qualname__", qualname);
    put("__doc__", doc);
    return dict;
}

Ref build_class(const char *name, PyTypeObject *base, PyObject *namespace_dict) {
    return check(
        PyObject_CallFunction(reinterpret_cast<PyObject *>(&PyType_Type), "s(O)O", name, base, namespace_dict));
}

} // namespace pysupport
