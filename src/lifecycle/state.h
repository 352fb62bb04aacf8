// The process-wide state now lives in process/state.h; this header keeps
// code that still names it through lifecycle:: compiling.
#pragma once

#include "process/state.h"

namespace cm::lifecycle {
using namespace cm::process;
}  // namespace cm::lifecycle
