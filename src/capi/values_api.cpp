// C entry points of the IP address conversion.
#include "configmanager/cm_values.h"
#include "values/ipaddr.h"

extern "C" {

CM_EXPORT int SockaddrToCMAddr(void* pCMAddr, struct sockaddr* pSockAddr) {
    if (pCMAddr == nullptr || pSockAddr == nullptr) return -1;
    return cm::values::sockaddrToCmAddr(static_cast<uint8_t*>(pCMAddr), pSockAddr);
}

CM_EXPORT int CMaddrToSockAddr(struct sockaddr* pSockAddr, const void* pCMAddr) {
    if (pCMAddr == nullptr || pSockAddr == nullptr) return -1;
    return cm::values::cmAddrToSockaddr(pSockAddr, static_cast<const uint8_t*>(pCMAddr));
}

}
