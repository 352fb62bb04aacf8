// Reading a one-byte record without the fcntl range lock.
//
// A single data byte cannot be seen half-written, and the record's header
// bytes are only ever rewritten with the values they already hold, so a
// one-byte value read from the mapping is always one that some process wrote.
// The file's process mutex is still taken: it keeps this process's own
// threads from remapping the file during the read.  Used on the set path to
// look at the library's state byte without two extra system calls.
#pragma once

#include <cstdint>

namespace cm::storage {

// 0 with the byte in `value`, or -1 (ID in no file, not a one-byte record,
// file not open or mapped, record missing or its header wrong).  Logs nothing.
int peekOctet(int32_t iVarID_Abs, uint8_t& value);

}  // namespace cm::storage
