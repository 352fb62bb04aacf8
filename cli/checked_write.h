// Writes that are checked before any of them is made: set with several
// NAME=VALUE arguments, import, restore, reset and salvage --apply all go
// through one plan, so that one bad value among many writes nothing.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "value_text.h"
#include "vars.h"

namespace cmctl {

class WritePlan {
public:
    // `source` names where the values come from ("FILE" or "argument"),
    // `unit` what they are counted in ("line", "argument").
    WritePlan(std::string source, std::string unit) : source_(std::move(source)), unit_(std::move(unit)) {}

    // Checks one value with the parser of `set`; a bad one is noted under
    // its number and nothing else happens.
    void add(size_t number, const std::string& name, const std::string& text);
    void add(size_t number, const VarInfo& v, const std::string& text);
    // Notes a line that is bad in itself (not NAME = VALUE).
    void refuse(size_t number, const std::string& why);

    size_t size() const { return items_.size(); }
    // Prints every refusal on standard error and fails when there was one.
    void requireClean() const;
    // Writes every value in order (the library must be started); `force`
    // writes during a profile download too.
    void apply(bool force) const;

private:
    struct Item {
        const VarInfo* var;
        std::string text;
        ValueBuffer value;
    };
    std::string source_, unit_;
    std::vector<Item> items_;
    std::vector<std::string> problems_;
};

// Writes one checked value (text as given to parseValue).
void writeValue(const VarInfo& v, const std::string& text, const ValueBuffer& value, bool force);

// Refuses to write while a profile download is in progress.
void requireNoDownload();

}  // namespace cmctl
