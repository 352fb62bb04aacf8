// The running software's version text, as the tag cache and the backup
// file are stamped with it.
#pragma once

#include <cstddef>

namespace cm::tags {

// SOFTWARE_VERSION holds at most 21 characters; one more byte keeps the
// text terminated even when the stored record is not.
inline constexpr std::size_t kVersionBuf = 23;

// Reads SOFTWARE_VERSION through the ordinary get.  0, or the get's
// negative result (the buffer is then an empty text).
int readSoftwareVersion(char (&out)[kVersionBuf]);

}  // namespace cm::tags
