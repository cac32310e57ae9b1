// Which interpreter a module is loaded into. Programs that embed Python may make several that share one lock, and those
// are not kept away by the slot that says so.
#pragma once

#include "error.h"

namespace pysupport {

// What the modules keep belongs to the interpreter that loaded them first, and would end with it.
inline void require_main_interpreter(const char *module) {
    if (PyInterpreterState_Get() != PyInterpreterState_Main())
        fail(PyExc_ImportError, "module %s does not support loading in subinterpreters", module);
}

} // namespace pysupport
