/*
 * IP address variables: conversion between a socket address and the
 * 20-byte stored form (family as a big-endian 16-bit number, the port as it
 * stands in the socket address, then the address bytes; all zero for "no
 * address").
 */
#ifndef CONFIGMANAGER_CM_VALUES_H
#define CONFIGMANAGER_CM_VALUES_H

#include <sys/socket.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Size of the stored form of an IP address. */
#define CM_IPADDR_SIZE 20

/* Fills the 20 bytes at pCMAddr from an AF_UNSPEC, AF_INET or AF_INET6
 * socket address.  0, or -1 for another family (the output is then all
 * zero) or a null pointer. */
CM_EXPORT int SockaddrToCMAddr(void* pCMAddr, struct sockaddr* pSockAddr);

/* Fills a socket address (large enough for struct sockaddr_in6) from the
 * stored form.  Family 0 sets only the family; IPv6 flow label and scope are
 * left as they were.  0, or -1 for an unknown stored family (the family is
 * then set to AF_UNSPEC) or a null pointer. */
CM_EXPORT int CMaddrToSockAddr(struct sockaddr* pSockAddr, const void* pCMAddr);

CM_EXTERN_C_END

#endif
