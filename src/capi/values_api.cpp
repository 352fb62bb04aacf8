// C entry points of the value conversions: IP addresses, text forms and
// passwords.
#include "configmanager/cm_values.h"
#include "getset/passwd.h"
#include "text/value_text.h"
#include "values/ipaddr.h"

extern "C" {

// Visibility comes from the declaration in the public header.
const uint8_t ipv6_addr_undefined[CM_IPADDR_SIZE] = {};

CM_EXPORT int SockaddrToCMAddr(void* pCMAddr, struct sockaddr* pSockAddr) {
    if (pCMAddr == nullptr || pSockAddr == nullptr) return -1;
    return cm::values::sockaddrToCmAddr(static_cast<uint8_t*>(pCMAddr), pSockAddr);
}

CM_EXPORT int CMaddrToSockAddr(struct sockaddr* pSockAddr, const void* pCMAddr) {
    if (pCMAddr == nullptr || pSockAddr == nullptr) return -1;
    return cm::values::cmAddrToSockaddr(pSockAddr, static_cast<const uint8_t*>(pCMAddr));
}

CM_EXPORT int CM_GetDataItemToString(int32_t iVarID_Abs, char* szText) {
    return cm::text::valueToText(iVarID_Abs, szText, cm::text::Form::Labelled);
}

CM_EXPORT int CM_Get_Var_Value_As_String(int32_t iVarID_Abs, char* szText) {
    return cm::text::valueToText(iVarID_Abs, szText, cm::text::Form::Bare);
}

CM_EXPORT int CM_PutDataItemFromString(int32_t iVarID_Abs, const char* szText) {
    return cm::text::valueFromText(iVarID_Abs, szText);
}

CM_EXPORT int CM_Get_Passwd(int32_t iVarID_Abs, char* szPlain) { return cm::getset::getPasswd(iVarID_Abs, szPlain); }

CM_EXPORT int CM_GetDataItemPasswd(int32_t iVarID_Abs, void* pRecord) {
    return cm::getset::getDataItemPasswd(iVarID_Abs, pRecord);
}

}
