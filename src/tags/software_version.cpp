#include "tags/software_version.h"

#include <cstring>

#include "configmanager/cm_vars.h"
#include "getset/getset.h"

namespace cm::tags {

int readSoftwareVersion(char (&out)[kVersionBuf]) {
    std::memset(out, 0, sizeof out);
    const int rc = getset::getVariable(SOFTWARE_VERSION, out);
    if (rc != 0) out[0] = '\0';
    out[kVersionBuf - 1] = '\0';
    return rc;
}

}  // namespace cm::tags
