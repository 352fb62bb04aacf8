// Profile download from the management server: CM_FLAG = 1 while it runs.
#include "batch/batch.h"
#include "configmanager/cm_types.h"
#include "getset/getset.h"
#include "log/log.h"
#include "notify/var_list.h"

namespace cm::batch {
namespace {
constexpr auto kLogModule = log::Module::ConfigParam;
}

int startProfDownload(uint8_t bFull) {
    notify::setFullProfile(bFull != 0);
    // The unconditional set: an ordinary one would itself be refused while
    // a download is already flagged.
    const uint8_t flag = CM_FLAG_PROFILE_DOWNLOAD;
    const int rc = getset::setVariableCmi(0, &flag);
    if (rc != 0) CM_LOG(log::kErr, "CM_Start_Prof_Download", "Failed to set P.Dld in prog flag (%d)\n", rc);
    return rc + notify::clearVarList();
}

int endProfDownload() {
    notify::setFullProfile(false);
    const uint8_t flag = CM_FLAG_IDLE;
    const int rc = getset::setVariableCmi(0, &flag);
    if (rc != 0) CM_LOG(log::kErr, "CM_End_Prof_Download", "Failed to clear P.Dld in prog flag (%d)\n", rc);
    return rc;
}

}  // namespace cm::batch
