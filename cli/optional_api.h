// Library functions that a build of the library may not carry yet: looked
// up at run time, so that cmctl still builds and every other subcommand
// works, while one that needs a missing function says it is not available.
#pragma once

#include <dlfcn.h>

#include <string>

#include "context.h"

namespace cmctl {

template <typename Fn>
Fn* optionalFunction(const char* name) {
    return reinterpret_cast<Fn*>(dlsym(RTLD_DEFAULT, name));
}

template <typename Fn>
Fn* requiredFunction(const char* name, const char* what) {
    Fn* f = optionalFunction<Fn>(name);
    if (f == nullptr)
        throw Failure(std::string(what) + " is not available: this build of the library lacks " + name);
    return f;
}

}  // namespace cmctl
