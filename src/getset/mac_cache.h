// The process's cache of the unit's first MAC address (variable 224): the
// last value this process read or wrote, six address bytes and two bytes the
// set path always writes as zero.  Guarded by mCMMutex.
#pragma once

#include <cstdint>

namespace cm::getset {

inline constexpr int32_t kMac1AddressId = 224;
inline constexpr int kMacCacheUsed = 8;

extern uint8_t szMACAddress[16];

}  // namespace cm::getset
