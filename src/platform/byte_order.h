// Big-endian loads and stores.  Data files are big-endian on every host;
// caller buffers hold numbers in the host's order.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace cm::platform {

inline uint16_t loadBe16(const void* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return std::endian::native == std::endian::big ? v : __builtin_bswap16(v);
}

inline uint32_t loadBe32(const void* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return std::endian::native == std::endian::big ? v : __builtin_bswap32(v);
}

inline void storeBe16(void* p, uint16_t v) {
    if constexpr (std::endian::native != std::endian::big) v = __builtin_bswap16(v);
    std::memcpy(p, &v, 2);
}

inline void storeBe32(void* p, uint32_t v) {
    if constexpr (std::endian::native != std::endian::big) v = __builtin_bswap32(v);
    std::memcpy(p, &v, 4);
}

}  // namespace cm::platform
