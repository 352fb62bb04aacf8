// libFuzzer entry point: see targets.h.
#include "targets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    cmfuzz::restoreFilter(data, size);
    return 0;
}
