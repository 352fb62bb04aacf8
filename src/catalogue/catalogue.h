// The compiled-in catalogue: the ten data files and every variable in them.
//
// The tables are generated at build time from catalogue/variables.tbl by
// tools/gen_catalogue.py; nothing here is edited by hand.  Every field is
// constant; each entry's record offset, which file set-up writes when it has
// located and checked the record (any thread may read it), is kept in a
// table of its own.
#pragma once

#include <atomic>
#include <cstdint>

#include "configmanager/cm_types.h"

namespace cm::catalogue {

inline constexpr int kNumFiles = CM_NUM_FILES;
inline constexpr int kNumVarIds = CM_NUM_VAR_IDS;  // 3290: array size and end marker
inline constexpr int kMaxVarId = CM_MAX_VAR_ID;
inline constexpr uint32_t kNoRecord = CM_NO_RECORD_OFFSET;
inline constexpr uint32_t kReportFlag = 0x80000000u;  // dwFlags bit 31: report to management
inline constexpr int kNumDataTypes = 7;               // codes 0..6; 7 and above are invalid

// Default value: numbers left-aligned in a 32-bit word (an octet default of 1
// is 0x01000000), every other type a pointer to wDataSize bytes.
union DefaultValue {
    uint32_t dwValue;
    const uint8_t* pData;
};

// The record offsets of every variable, by absolute ID, stored complemented:
// the zeroed table a process starts with reads as kNoRecord throughout.
// They live apart from the entries so that the tables stay constant and a
// file set-up writes a few pages of its own rather than every page of the
// catalogue.
extern std::atomic<uint32_t> dwRecordOffsetNot[kNumVarIds];

// One catalogue entry.
struct DataAccessStruct {
    const char* szVarTag;
    uint8_t ucDataType;
    uint8_t ucAttrib;  // defaults group 0..3
    uint16_t wDataSize;
    uint32_t dwMin;
    uint32_t dwMax;
    DefaultValue oDefault;
    uint32_t dwFlags;
    uint16_t wVarID;  // the absolute ID

    // Byte offset of the record in the data file, kNoRecord when not located.
    uint32_t recordOffset() const { return ~dwRecordOffsetNot[wVarID].load(std::memory_order_relaxed); }
    void setRecordOffset(uint32_t v) const { dwRecordOffsetNot[wVarID].store(~v, std::memory_order_relaxed); }
    bool reportable() const { return (dwFlags & kReportFlag) != 0; }
};

// One row of the file table.
struct ConfigItemList {
    const char* szPath;  // device path; resolved under the root directory at run time
    uint16_t wVersion;   // file version written into and checked against the header
    uint16_t wZero;      // always 0
    int32_t iNumItems;
    int32_t iFirstVarID;
    const DataAccessStruct* pItems;
};

extern const ConfigItemList sConfigItemList[kNumFiles];

// File index of every absolute ID, -1 for the IDs in the gaps between files.
extern const int8_t kFileOfVarId[kNumVarIds];

inline const DataAccessStruct& entry(int iFileIndex, int iVarID_Rel) {
    return sConfigItemList[iFileIndex].pItems[iVarID_Rel];
}

}  // namespace cm::catalogue
