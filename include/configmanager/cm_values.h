/*
 * Values: IP address variables in their stored form, the text forms of every
 * value, and password variables.
 *
 * An IP address is stored as 20 bytes: the family as a big-endian 16-bit
 * number, the port as it stands in the socket address, then the address
 * bytes; all zero means "no address".  A password is stored as a 130-byte
 * record: a big-endian 16-bit ciphertext length (0 = no password, at most
 * 128), then the AES-256-CBC ciphertext, zero-filled to the end.
 *
 * Text buffers passed to the text-form functions must hold at least
 * CM_VALUE_TEXT_SIZE bytes; plain-password buffers CM_PASSWD_TEXT_SIZE.
 */
#ifndef CONFIGMANAGER_CM_VALUES_H
#define CONFIGMANAGER_CM_VALUES_H

#include <stdint.h>
#include <sys/socket.h>

#include "configmanager/cm_types.h"

CM_EXTERN_C_BEGIN

/* Size of the stored form of an IP address. */
#define CM_IPADDR_SIZE 20
/* Size of a stored password record, and the longest plain password. */
#define CM_PASSWD_RECORD_SIZE 130
#define CM_PASSWD_MAX_PLAIN 127
/* Minimum size of the caller's buffers. */
#define CM_VALUE_TEXT_SIZE 512
#define CM_PASSWD_TEXT_SIZE 128

/* The stored form of "no address": 20 zero bytes. */
CM_EXPORT extern const uint8_t ipv6_addr_undefined[CM_IPADDR_SIZE];

/* Fills the 20 bytes at pCMAddr from an AF_UNSPEC, AF_INET or AF_INET6
 * socket address.  0, or -1 for another family (the output is then all
 * zero) or a null pointer. */
CM_EXPORT int SockaddrToCMAddr(void* pCMAddr, struct sockaddr* pSockAddr);

/* Fills a socket address (large enough for struct sockaddr_in6) from the
 * stored form.  Family 0 sets only the family; IPv6 flow label and scope are
 * left as they were.  0, or -1 for an unknown stored family (the family is
 * then set to AF_UNSPEC) or a null pointer. */
CM_EXPORT int CMaddrToSockAddr(struct sockaddr* pSockAddr, const void* pCMAddr);

/* Labelled text of a variable's value for people, e.g.
 * "WORD: 5 (unsigned 5) (0x0005)".  0, or -1 (bad ID, read failure, unknown
 * type: the text is then empty). */
CM_EXPORT int CM_GetDataItemToString(int32_t iVarID_Abs, char* szText);

/* Bare text of a variable's value, as a backup line carries it: decimal
 * numbers, the text itself, "0x" and upper-case hex digits for octet strings
 * and (enciphered) passwords, an address in text form ("" for none).
 * 0; -15 bad ID; -21 ID in no file; -22 unknown type; -1 or a read
 * failure's result. */
CM_EXPORT int CM_Get_Var_Value_As_String(int32_t iVarID_Abs, char* szText);

/* Parses a bare text (as CM_Get_Var_Value_As_String gives it) and writes the
 * variable, with change notification.  Numbers are truncated to their size
 * without bounds checks; octet strings take the text's own bytes; a password
 * is either the 262-character "0x" hex form of its record or a plain text
 * that is enciphered.  The record write's result (1 written, 0 unchanged),
 * or negative. */
CM_EXPORT int CM_PutDataItemFromString(int32_t iVarID_Abs, const char* szText);

/* Deciphers a password variable into szPlain (at least 128 bytes, always
 * zero-terminated; empty on failure).  0; -12 library not started; -15 any
 * other failure (an ID outside 0..3289 or of a variable that is not a
 * password, a stored length above 128, a record that does not decipher). */
CM_EXPORT int CM_Get_Passwd(int32_t iVarID_Abs, char* szPlain);

/* Reads a password variable's 130-byte stored record unchanged.  The record
 * read's result, or -1 when the ID is not that of a password variable. */
CM_EXPORT int CM_GetDataItemPasswd(int32_t iVarID_Abs, void* pRecord);

/* Supplied by the device platform: parse an IPv4 or IPv6 address text into a
 * socket address (negative when the text is not an address), and format a
 * socket address's address as text into at most iSize bytes (negative on
 * failure).  The library carries weak defaults built on inet_pton and
 * inet_ntop so that it works on a host; a device build replaces them by
 * defining the symbols. */
CM_EXPORT int ConvertStringToIpAddress(struct sockaddr* pSockAddr, const char* szText);
CM_EXPORT int CopyAddressToString(char* szText, const struct sockaddr* pSockAddr, int iSize);

CM_EXTERN_C_END

#endif
