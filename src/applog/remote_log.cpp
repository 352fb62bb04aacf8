#include "applog/remote_log.h"

#include <pthread.h>

#include <cstdio>
#include <cstring>

#include "configmanager/applog_settings.h"
#include "configmanager/cm_vars.h"
#include "getset/getset.h"
#include "log/log.h"
#include "log/sink.h"
#include "text/value_text.h"

namespace cm::applog {
namespace {

constexpr auto kLogModule = log::Module::Applog;
constexpr size_t kMaxEvent = 1025;
constexpr int kUsableAddressStatus = 3;  // statuses above this carry a usable address

// The identity texts and the sequence number, guarded by mRemoteLogMutex.
pthread_mutex_t mRemoteLogMutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t iSeqNo = 0;
char szUnitName[44] = "";
char szIpAddress[109] = "";
char szMacAddress[18] = "";

struct Guard {
    Guard() { pthread_mutex_lock(&mRemoteLogMutex); }
    ~Guard() { pthread_mutex_unlock(&mRemoteLogMutex); }
};

void toSyslog(int priority, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    log::emit(log::Channel::Syslog, priority, fmt, ap);
    va_end(ap);
}

// The address of one family as text, when its status says it is usable.
bool usableAddress(int32_t statusId, int32_t addressId, char (&out)[text::kTextSize]) {
    uint8_t status[4] = {};
    return getset::getVariable(statusId, status) == 0 && status[0] > kUsableAddressStatus &&
           text::valueToText(addressId, out, text::Form::Labelled) == 0;
}

void refreshAddresses() {
    char v4[text::kTextSize] = "", v6[text::kTextSize] = "";
    const bool has4 = usableAddress(CURRENT_IP4_ADDRESS_STATUS, CURRENT_IP4_ADDRESS, v4);
    const bool has6 = usableAddress(CURRENT_IP6_ADDRESS_STATUS, CURRENT_IP6_ADDRESS, v6);
    if (has4 && has6)
        std::snprintf(szIpAddress, sizeof szIpAddress, "%s %s", v4, v6);
    else if (has4 || has6)
        std::snprintf(szIpAddress, sizeof szIpAddress, "%s", has4 ? v4 : v6);
    else
        std::snprintf(szIpAddress, sizeof szIpAddress, "no ip address");
}

void refreshMac(int32_t id) {
    uint8_t mac[8] = {};
    if (getset::getVariable(id, mac) != 0) {
        std::memset(mac, 0, sizeof mac);
        CM_LOG(3, "RemoteLogChanged", "CM_Get_Variable failed for VarId of %d\n", id);
    }
    std::snprintf(szMacAddress, sizeof szMacAddress, "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
}

void refreshUnitName(int32_t id) {
    char name[text::kTextSize] = {};
    if (getset::getVariable(id, name) != 0) {
        name[0] = '\0';
        CM_LOG(3, "RemoteLogChanged", "CM_Get_Variable failed for VarId of %d\n", id);
    }
    std::snprintf(szUnitName, sizeof szUnitName, "%s", name);
}

}  // namespace

int remoteLogChanged(int32_t id) {
    Guard g;
    switch (id) {
        case CURRENT_IP4_ADDRESS_STATUS:
        case CURRENT_IP4_ADDRESS:
        case CURRENT_IP6_ADDRESS_STATUS:
        case CURRENT_IP6_ADDRESS: refreshAddresses(); break;
        case MAC1_ADDRESS: refreshMac(id); break;
        case UNIT_NAME: refreshUnitName(id); break;
        default: CM_LOG(3, "RemoteLogChanged", "VarId %d not handled\n", id); break;
    }
    return 0;
}

// The caller's format is expanded with the caller's arguments on its own,
// and the result is then placed into the fixed layout as plain text.  The
// identity texts are therefore never read as a format: a unit name (which
// any process or the management server may set) holding "%n" or "%s" prints
// as those characters instead of writing or reading the process's memory.
// For identity texts without '%' the event is the same as expanding one
// format built from the layout, the caller's format and the texts.
void vRemoteLog(uint32_t priority, long code, const char* format, va_list ap) {
    if (log::oApplogState.load(std::memory_order_relaxed) == 0 || format == nullptr) return;
    Guard g;
    const uint32_t seq = iSeqNo++;
    char text[kMaxEvent + 1];
    std::vsnprintf(text, sizeof text, format, ap);
    char event[kMaxEvent + 1];
    // Cut at kMaxEvent characters, as any event.
    const int n = std::snprintf(event, sizeof event, "^^VX Code=%06ld;%s;Device=Zr440;Unit Name=%s;IP Address=%s;MAC=%s;Seq No=%05u",
                  code, text, szUnitName, szIpAddress, szMacAddress, seq);
    if (n >= 0) toSyslog(static_cast<int>(priority & 7), "%s", event);
    if (iSeqNo > kMaxSeqNo) iSeqNo = 0;
}

void remoteLog(uint32_t priority, long code, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    vRemoteLog(priority, code, format, ap);
    va_end(ap);
}

void setNextSeqNo(uint32_t seq) {
    Guard g;
    iSeqNo = seq;
}

}  // namespace cm::applog

extern "C" CM_EXPORT int RemoteLogChanged(int32_t id) { return cm::applog::remoteLogChanged(id); }
