// Walks a copy of a data file record by record, as the catalogue lays them
// out, and gives the value text of every intact record.  After a record
// whose header is wrong it re-synchronises on the next offset where a
// record header agrees with the catalogue and is followed by another (or by
// the end of the file), so one bad record costs only itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vars.h"

namespace cmctl {

struct SalvagedValue {
    const VarInfo* var;
    uint32_t offset;   // of the record in the copy
    std::string text;  // as parseValue takes it (a password: its enciphered record)
};

struct WalkResult {
    std::vector<SalvagedValue> values;
    size_t badStretches = 0;  // places where the walk had to re-synchronise
};

// `bytes` is the whole copy of data file `fileIndex`.
WalkResult walkRecords(int fileIndex, const std::string& bytes);

}  // namespace cmctl
