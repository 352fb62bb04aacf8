#include "tags/software_version.h"

#include <cstring>

#include "configmanager/cm_vars.h"
#include "lifecycle/state.h"
#include "storage/record.h"

namespace cm::tags {

int readSoftwareVersion(char (&out)[kVersionBuf]) {
    std::memset(out, 0, sizeof out);
    if (!lifecycle::started()) return -12;
    if (storage::getDataItem(SOFTWARE_VERSION, out) != 0) {
        out[0] = '\0';
        return -15;
    }
    out[kVersionBuf - 1] = '\0';
    return 0;
}

}  // namespace cm::tags
