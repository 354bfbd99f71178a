#include "faults/faults.h"

namespace faults {

Hooks hooks;

}  // namespace faults

using faults::char_ptr;
using faults::dirent_ptr;
using faults::szlist_ptr;

#define ZEM_HOOK(result, name, parameters, arguments)                                   \
  extern "C" result __real_##name parameters;                                           \
  extern "C" result __wrap_##name parameters;                                           \
  extern "C" result __wrap_##name parameters {                                          \
    return faults::hooks.name ? faults::hooks.name arguments : __real_##name arguments; \
  }
#include "faults/wrapped_calls.inc"
#undef ZEM_HOOK
