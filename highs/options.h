// options.h: HiGHS' options as Python values.
#pragma once

#include "pysupport/error.h"

namespace tarvopy::highs {

// Sets an option from a Python value of the type that the option has; on/off strings take booleans too, and integers
// take floats without a fraction. An unknown name or a value that HiGHS refuses is a ValueError, a value of the wrong
// type a TypeError.
void set_option(void *highs, const char *name, PyObject *value);
pysupport::Ref get_option(void *highs, const char *name);

} // namespace tarvopy::highs
