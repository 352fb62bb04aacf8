// Values in the caller's form (numbers in host order, texts, raw bytes, a
// socket address for IP addresses, the enciphered record of a password)
// to and from the bare text that `get` prints and `set` reads.  The text
// forms are those of a backup line, so that `diff` can compare the two.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "vars.h"

namespace cmctl {

// Large enough for every variable's value and for a struct sockaddr_in6.
struct alignas(8) ValueBuffer {
    std::array<uint8_t, 512> bytes{};
    void* data() { return bytes.data(); }
    const void* data() const { return bytes.data(); }
};

enum class PasswordForm {
    Masked,  // "" when no password is stored, else a fixed mask
    Stored,  // the enciphered record in hexadecimal, as a backup holds it
};

inline constexpr const char* kPasswordMask = "********";

std::string formatValue(const VarInfo& v, const ValueBuffer& value, PasswordForm pw = PasswordForm::Masked);

// Parses `text` for variable v and checks it against the variable's size,
// bounds and, for an address whose name says IP4 or IP6, its family.  An
// octet string is "0x" and every byte in hexadecimal.  A password is kept as
// plain text (the library enciphers it), unless the text is its enciphered
// record in hexadecimal (isStoredPassword), which is decoded as it stands.
// Throws Failure("NAME: reason") for a value the variable cannot hold.
ValueBuffer parseValue(const VarInfo& v, const std::string& text);
bool isStoredPassword(const VarInfo& v, const std::string& text);

// Reads the current value / the default value; Failure when it cannot.
ValueBuffer readValue(const VarInfo& v);
ValueBuffer readDefault(const VarInfo& v);

}  // namespace cmctl
