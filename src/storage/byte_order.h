// The byte-order helpers now live in platform/byte_order.h; this header
// keeps code that still names them through storage:: compiling.
#pragma once

#include "platform/byte_order.h"

namespace cm::storage {
using platform::loadBe16;
using platform::loadBe32;
using platform::storeBe16;
using platform::storeBe32;
}  // namespace cm::storage
