// The export format: one "NAME = value" line per variable, read back by
// import.  Numbers in decimal; texts as they are, or in double quotes with
// backslash escapes (\\ \" \n \r \t \xHH) when they are empty, start or end
// with a blank, start with a quote or hold a byte outside printable ASCII;
// octet strings as 0x and every byte in hexadecimal; addresses as text ("" for
// none); passwords as 0x and their enciphered record.  Lines starting with #
// and blank lines are comments.
//
// The JSON form is one object, NAME: value, numbers as JSON numbers; a text
// that is not valid UTF-8 is given as {"hex": "0x..."}.
#pragma once

#include <optional>
#include <string>

#include "commands.h"
#include "value_text.h"
#include "vars.h"

namespace cmctl {

// The value of one variable as an export line holds it.
std::string exportValue(const VarInfo& v, const ValueBuffer& value);
std::string exportLine(const VarInfo& v, const ValueBuffer& value);

// One line read back: nothing for a comment or blank line; otherwise the
// name and the value text as parseValue takes it.  Failure for a line that
// is not NAME = value or whose quoting is broken.
struct ExportEntry {
    std::string name, text;
};
std::optional<ExportEntry> parseExportLine(const std::string& line);

// The JSON forms.
Json exportJson(const VarInfo& v, const ValueBuffer& value);
std::string textFromJson(const VarInfo& v, const Json& value);

// A value as JSON for get, show and watch: numbers as numbers, the rest as
// the text of formatValue.
Json displayJson(const VarInfo& v, const std::string& text);

}  // namespace cmctl
