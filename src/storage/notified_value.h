// Reading a variable from the private copy the watch thread compares
// changes against: the value as that thread last saw it.
#pragma once

#include <cstdint>

namespace cm::storage {

// 0, or -1 (bad ID, null destination, no private copy of the file, record
// not set up).  IP addresses come out as socket addresses, as from
// getDataItem.
int getNotifiedDataItem(int32_t iVarID_Abs, void* destination);

}  // namespace cm::storage
