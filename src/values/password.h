// Password records: AES-256-CBC with the library's fixed key and IV.
//
// Record (130 bytes): bytes 0-1 the ciphertext length, big-endian (0 = no
// password, at most 128); bytes 2-129 the ciphertext with PKCS#7 padding,
// zero-filled.  Equal texts give equal records in every process and after
// every restart, so backups can carry the enciphered form.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cm::values {

inline constexpr std::size_t kPasswdRecordSize = 130;
inline constexpr std::size_t kPasswdMaxCipher = 128;
inline constexpr std::size_t kPasswdMaxPlain = 127;

// Enciphers the zero-terminated `plain` (read up to 128 bytes) into a zeroed
// record.  0, or -15 when the text is longer than 127 bytes or the cipher
// fails (logged under "vxencrypt").  One cipher context per call, always freed.
int encipherPassword(const char* plain, uint8_t record[kPasswdRecordSize]);

// Deciphers a record into `plain` (at least 128 bytes): 0 with a
// zero-terminated text (empty for a zero length), -15 for a length above 128
// or a cipher failure such as bad padding (logged under "vxdecrypt"; `plain`
// is then empty).
int decipherPassword(const uint8_t record[kPasswdRecordSize], char* plain);

}  // namespace cm::values
