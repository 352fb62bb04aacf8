// Reading password variables: the stored record, and the deciphered text.
#pragma once

#include <cstdint>

namespace cm::getset {

// The 130-byte record unchanged: the record read's result, or -1 when the ID
// is 3290 or more, in no file, or not a password variable.
int getDataItemPasswd(int32_t id, void* record);

// The plain text into `plain` (at least 128 bytes; empty on any failure).
// 0; -12 not started or ID above 3289; -15 any other failure.
int getPasswd(int32_t id, char* plain);

}  // namespace cm::getset
