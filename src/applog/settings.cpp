#include "applog/settings.h"

#include <unistd.h>

#include "applog/remote_log.h"
#include "configmanager/applog.h"
#include "configmanager/applog_settings.h"
#include "configmanager/cm_vars.h"
#include "getset/getset.h"
#include "log/log.h"
#include "notify/registry.h"
#include "text/value_text.h"

namespace cm::applog {
namespace {

constexpr auto kLogModule = log::Module::Applog;
constexpr uint32_t kInitError = 0x100023;
constexpr uint32_t kInitInfo = 0x100026;
constexpr uint32_t kConsoleError = 0x100003;
constexpr uint8_t kConsoleOn = 1;
constexpr uint8_t kDefaultLogMode = 1;
constexpr uint32_t kDefaultLogFilter = 5;

// Large enough for a value of any type, so that a caller naming a variable
// of an unexpected type cannot make the read overrun it.
union ValueBuffer {
    uint8_t u8;
    uint32_t u32;
    char bytes[text::kTextSize];
};

// Other threads read the exported switch without a lock: write it whole.
void setConsoleLog(int value) { __atomic_store_n(&g_iConsoleLog, value, __ATOMIC_RELAXED); }

struct IdentityRegistration {
    int32_t id;
    const char* szMessage;
};

// Registered after the log filter, in this order; a failure is reported
// with the variable's name.
constexpr IdentityRegistration kIdentity[] = {
    {UNIT_NAME, "CM_Register_Interest failed for UNIT_NAME\n"},
    {CURRENT_IP4_ADDRESS_STATUS, "CM_Register_Interest failed for CURRENT_IP4_ADDRESS_STATUS\n"},
    {CURRENT_IP4_ADDRESS, "CM_Register_Interest failed for CURRENT_IP4_ADDRESS\n"},
    {CURRENT_IP6_ADDRESS_STATUS, "CM_Register_Interest failed for CURRENT_IP6_ADDRESS_STATUS\n"},
    {CURRENT_IP6_ADDRESS, "CM_Register_Interest failed for CURRENT_IP6_ADDRESS\n"},
};

}  // namespace

int applogInit(int32_t logModeId, int32_t logFilterId) {
    constexpr const char* fn = "Applog_init";
    if (log::oApplogState.load() != kNotInitialised) {
        CM_LOG_TAGGED(kInitError, "**ERROR: Applog_init() called again\n");
        return -1;
    }
    if (notify::registerInterest(CONSOLE_LOG, ::fnActionConsoleLog) != 0)
        CM_LOG_TAGGED(kInitError, "**ERROR: PID %d failed to register CONSOLE_LOG - carry on, but will not see changes\n",
                      getpid());

    // Once one registration has failed, every later one is reported too:
    // the messages follow the running count, not each single result.
    int count = notify::registerInterest(logModeId, ::LogModeChanged);
    if (count != 0) CM_LOG(kInitError, fn, "CM_Register_Interest failed for VarId of %d\n", logModeId);
    if (notify::registerInterest(logFilterId, ::LogFilterChanged) != 0) ++count;
    if (count != 0) CM_LOG(kInitError, fn, "CM_Register_Interest failed for VarId of %d\n", logFilterId);
    for (const auto& r : kIdentity) {
        if (notify::registerInterest(r.id, ::RemoteLogChanged) != 0) ++count;
        if (count != 0) CM_LOG(kInitError, fn, "%s", r.szMessage);
    }
    if (notify::registerInterest(MAC1_ADDRESS, ::RemoteLogChanged) != 0) ++count;
    if (count == 0)
        CM_LOG(kInitInfo, fn, "AppLog LogMode Id is %d and LogFilter is %d\n", logModeId, logFilterId);
    else
        CM_LOG(3, fn, "CM_Register_Interest failed for MAC1_ADDRESS\n");

    // Every callback runs once, so that settings and texts take their
    // current values.
    for (int32_t id : {static_cast<int32_t>(CONSOLE_LOG), logModeId, logFilterId, static_cast<int32_t>(UNIT_NAME),
                       static_cast<int32_t>(CURRENT_IP4_ADDRESS_STATUS), static_cast<int32_t>(MAC1_ADDRESS)})
        notify::notify(id);

    if ((log::oLogMode.load() & 0x7F) == kLogModeOnce) {
        // 'once': this run keeps logging, the next starts with logging off.
        log::oApplogState = kOnceTurnedOff;
        const uint8_t off = 0;
        if (getset::setVariableCmi(logModeId, &off) != 0) {
            // No change, so no notification will come to be ignored.
            log::oApplogState = kInitialised;
            CM_LOG(kInitError, fn, "CM_Set_Variable failed for VarId of %d\n", logModeId);
        } else {
            CM_LOG(kInitInfo, fn, "AppLog was 'once' so set to off for next time\n");
        }
    } else {
        log::oApplogState = kInitialised;
    }
    return count;
}

int logModeChanged(int32_t varId) {
    uint8_t expected = kOnceTurnedOff;
    if (log::oApplogState.compare_exchange_strong(expected, kInitialised)) return 0;
    ValueBuffer v{};
    if (getset::getVariable(varId, &v) != 0) {
        log::oLogMode = kDefaultLogMode;
        CM_LOG(3, "LogModeChanged", "CM_Get_Variable failed for VarId of %d\n", varId);
    } else {
        log::oLogMode = v.u8;
    }
    return 0;
}

int logFilterChanged(int32_t varId) {
    ValueBuffer v{};
    if (getset::getVariable(varId, &v) != 0) {
        log::dwLogFilter = kDefaultLogFilter;
        CM_LOG(3, "LogFilterChanged", "CM_Get_Variable failed for VarId of %d\n", varId);
    } else {
        log::dwLogFilter = v.u32;
    }
    return 0;
}

int fnActionConsoleLog(int32_t varId) {
    (void)varId;
    ValueBuffer v{};
    if (getset::getVariable(CONSOLE_LOG, &v) != 0) {
        setConsoleLog(0);
        CM_LOG(kConsoleError, "fnActionConsoleLog", "CM_Get_Variable error for CONSOLE_LOG - assume CONSOLE_LOG is GD_OFF\n");
        return 0;
    }
    setConsoleLog(v.u8 == kConsoleOn ? 1 : 0);
    return 0;
}

}  // namespace cm::applog

// The exported callbacks are the very functions Applog_init registers, so a
// process that registered one of them itself is told of each change once,
// and Applog_init reports the repeated registration.
extern "C" {
CM_EXPORT int fnActionConsoleLog(int32_t id) { return cm::applog::fnActionConsoleLog(id); }
CM_EXPORT int LogModeChanged(int32_t id) { return cm::applog::logModeChanged(id); }
CM_EXPORT int LogFilterChanged(int32_t id) { return cm::applog::logFilterChanged(id); }
}
