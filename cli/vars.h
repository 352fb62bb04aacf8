// The catalogue as the tool sees it: every variable with its static
// properties, read through the library's lookups.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cmctl {

struct VarInfo {
    int32_t id = -1;
    std::string name;
    int fileIndex = -1;
    int32_t relId = -1;
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t min = 0, max = 0;
    uint32_t group = 0;
    bool reported = false;
};

// Properties of one variable (the ID must belong to a file).
VarInfo varInfo(int32_t id);

// Every variable in catalogue order (ascending absolute ID).
const std::vector<VarInfo>& allVars();

// The variable of that name, or nullptr.
const VarInfo* findVar(const std::string& name);

// Variables whose names start with `prefix` (all for an empty prefix).
std::vector<const VarInfo*> varsWithPrefix(const std::string& prefix);

// Each argument names one variable or, failing that, a prefix of several;
// an argument that matches nothing is a Failure.  No arguments: every
// variable.  Catalogue order, without repeats.
std::vector<const VarInfo*> selectVars(const std::vector<std::string>& namesOrPrefixes);

const char* typeName(uint32_t type);

// "NAME: no such variable", with the nearest name when one is near.
std::string unknownVariable(const std::string& name);

}  // namespace cmctl
