// General and factory defaults: selected records of every file rewritten in
// place, so that every process's watcher reports each reset variable.
#include <cstring>

#include "applog/remote_log.h"
#include "catalogue/catalogue.h"
#include "configmanager/cm_vars.h"
#include "defaults/cleanup.h"
#include "defaults/load.h"
#include "getset/getset.h"
#include "log/log.h"
#include "storage/defaults.h"

namespace cm::defaults {
namespace {

// Defaults groups: general defaults reset group 3, factory defaults all.
constexpr uint32_t kGeneralGroup = 3;
constexpr uint32_t kEveryGroup = 0;

constexpr uint32_t kBannerCritical = 0x100102;
constexpr uint32_t kBannerWarning = 0x100104;
constexpr uint32_t kBannerNotice = 0x100105;

int resetEveryFile(uint32_t level) {
    int sum = 0;
    for (int i = 0; i < catalogue::kNumFiles; ++i) sum += storage::writeDefaultDataItems(i, level);
    return sum;
}

}  // namespace

int loadGeneralDefaults() {
    const int sum = resetEveryFile(kGeneralGroup);
    if (sum != 0)
        CM_LOG_TAGGED(kBannerWarning,
                      "****** Loaded General (GROUP3) CM variable defaults, but with errors during processing. ******\n");
    else
        CM_LOG_TAGGED(kBannerNotice, "****** Loaded General (GROUP3) CM variable defaults. ******\n");
    applog::remoteLog(6, 21, "%s", "General Defaults Loaded");
    return sum;
}

int loadFactoryDefaults() {
    applog::remoteLog(6, 22, "%s", "Factory Defaults Loaded");

    // The software version describes the installed image, not a setting: it
    // survives the reset.
    char version[64] = {};
    const bool haveVersion = getset::getVariable(SOFTWARE_VERSION, version) == 0;
    int errors = haveVersion ? 0 : 1;

    removeSystemLogs();
    CM_LOG_TAGGED(kBannerCritical, "****** Loading Factory CM variable defaults ******\n");
    removeDiagnostics();
    removeCertificates();

    errors += resetEveryFile(kEveryGroup);
    // Without a version read there is nothing to restore: the variable keeps
    // its default rather than an undefined text.
    if (haveVersion && getset::setVariableCmi(SOFTWARE_VERSION, version) != 0) ++errors;

    clearShellHistories();
    if (errors != 0)
        CM_LOG_TAGGED(kBannerCritical,
                      "****** Loaded Factory CM variable defaults, but with errors during processing ******\n");
    else
        CM_LOG_TAGGED(kBannerCritical, "****** Loaded Factory CM variable defaults ******\n");
    return errors;
}

}  // namespace cm::defaults
