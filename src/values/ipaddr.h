// The stored form of an IP address variable and its conversion to and from
// a socket address.
//
// Stored form (20 bytes, five big-endian 32-bit words):
//   bytes 0-1   address family: 0 none, 2 IPv4, 10 IPv6
//   bytes 2-3   port, copied as it stands in the socket address (network order)
//   bytes 4-7   IPv4 address, or IPv6 address bytes 0-3
//   bytes 8-19  zero for IPv4, or IPv6 address bytes 4-15
// All zero means "no address".  IPv6 flow label and scope are not stored.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

namespace cm::values {

inline constexpr std::size_t kStoredAddrSize = 20;

// Builds the stored form of `sa`.  0, or -1 for a family other than
// AF_UNSPEC, AF_INET and AF_INET6 (the stored form is then all zero).
int sockaddrToCmAddr(uint8_t* stored, const sockaddr* sa);

// Fills `sa` from the stored form; the caller's structure must be large
// enough for an IPv6 address.  Family 0 writes only the family.  0, or -1 for
// an unknown stored family (the family field is then set to 0).
int cmAddrToSockaddr(sockaddr* sa, const uint8_t* stored);

}  // namespace cm::values
