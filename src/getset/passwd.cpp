#include "getset/passwd.h"

#include "catalogue/lookup.h"
#include "configmanager/cm_types.h"
#include "getset/getset.h"
#include "process/state.h"
#include "storage/record.h"
#include "values/password.h"

namespace cm::getset {

int getDataItemPasswd(int32_t id, void* record) {
    catalogue::Location loc;
    if (record == nullptr || id >= catalogue::kNumVarIds || !catalogue::toRelative(id, loc)) return -1;
    if (catalogue::entry(loc.iFileIndex, loc.iVarID_Rel).ucDataType != DT_PASSWORD) return -1;
    return storage::readDataItem(loc.iFileIndex, loc.iVarID_Rel, record);
}

int getPasswd(int32_t id, char* plain) {
    if (plain == nullptr) return kInvalid;
    plain[0] = '\0';
    if (!process::started()) return kNotStarted;
    uint8_t record[values::kPasswdRecordSize];
    if (getDataItemPasswd(id, record) < 0) return kInvalid;
    // Unreachable for such IDs (the read has failed already); kept after it.
    if (id > catalogue::kMaxVarId) return kNotStarted;
    return values::decipherPassword(record, plain);
}

}  // namespace cm::getset
