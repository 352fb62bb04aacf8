#include "storage/record_peek.h"

#include "catalogue/lookup.h"
#include "platform/byte_order.h"
#include "storage/file_state.h"
#include "storage/lock.h"
#include "storage/map_guard.h"

namespace cm::storage {

int peekOctet(int32_t id, uint8_t& value) {
    catalogue::Location loc;
    if (!catalogue::locate(id, loc)) return -1;
    const int i = loc.iFileIndex;
    const auto& e = catalogue::entry(i, loc.iVarID_Rel);
    const uint32_t offset = e.recordOffset();
    if (e.wDataSize != 1 || offset == catalogue::kNoRecord) return -1;
    if (lockMutex(i, "CM_Set_Variable") != 0) return -1;

    int result = -1;
    uint8_t rec[kRecordHeader + 1];
    if (mapped(i) && offset <= dwLenMappedFile[i] && sizeof rec <= dwLenMappedFile[i] - offset &&
        guardedCopy(rec, pMappedFile[i] + offset, sizeof rec) &&
        platform::loadBe16(rec) == static_cast<unsigned>(loc.iVarID_Rel) && platform::loadBe16(rec + 2) == 1) {
        value = rec[kRecordHeader];
        result = 0;
    }
    unlockMutex(i, "CM_Set_Variable");
    return result;
}

}  // namespace cm::storage
