#include "storage/record_peek.h"

#include <pthread.h>

#include "catalogue/lookup.h"
#include "storage/byte_order.h"
#include "storage/file_state.h"

namespace cm::storage {

int peekOctet(int32_t id, uint8_t& value) {
    catalogue::Location loc;
    if (!catalogue::locate(id, loc)) return -1;
    const int i = loc.iFileIndex;
    const auto& e = catalogue::entry(i, loc.iVarID_Rel);
    if (e.wDataSize != 1 || fdRead[i] < 0) return -1;
    const uint32_t offset = e.recordOffset();
    if (offset == catalogue::kNoRecord) return -1;

    int result = -1;
    pthread_mutex_lock(&mtxFile[i]);
    if (mapped(i) && offset <= dwLenMappedFile[i] && kRecordHeader + 1 <= dwLenMappedFile[i] - offset) {
        const uint8_t* rec = pMappedFile[i] + offset;
        if (loadBe16(rec) == static_cast<unsigned>(loc.iVarID_Rel) && loadBe16(rec + 2) == 1) {
            value = rec[kRecordHeader];
            result = 0;
        }
    }
    pthread_mutex_unlock(&mtxFile[i]);
    return result;
}

}  // namespace cm::storage
