// Text forms of values: the bare form a backup line carries (and that the
// parser reads back), and a labelled form for people.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cm::text {

inline constexpr std::size_t kTextSize = 512;       // the caller's buffer, at least
inline constexpr std::size_t kMaxHexBytes = 254;    // bytes shown in "0x" form
inline constexpr std::size_t kMaxAddrText = 254;    // room for an address text
inline constexpr int kAddrFormatSize = 54;          // passed to CopyAddressToString

enum class Form { Bare, Labelled };

// Bare: 0; -15 bad ID; -21 ID in no file; -22 unknown type; -1 or the read's
// result.  Labelled: 0 or negative (-1 for every ID and type failure).
int valueToText(int32_t id, char* out, Form form);

// Parses a bare text and writes the variable (with notification): the record
// write's result (1 written, 0 unchanged), or negative.
int valueFromText(int32_t id, const char* text);

}  // namespace cm::text
