// Host default of the platform's version recorder.  On the device the
// hosting process provides the real one, which takes precedence over this
// weak definition.
#include "configmanager/cm_lifecycle.h"

extern "C" CM_EXPORT __attribute__((weak)) int createVersionInfoFile_date(int, int, int, int, const char*,
                                                                          const char*, const char*, int) {
    return 0;
}
