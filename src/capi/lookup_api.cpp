// C entry points of the catalogue lookups.
#include <unistd.h>

#include "catalogue/lookup.h"
#include "configmanager/cm_lookup.h"
#include "log/log.h"
#include "platform/env.h"
#include "process/state.h"

using namespace cm;
using catalogue::Location;

namespace {
constexpr auto kLogModule = log::Module::FileAccess;

const catalogue::DataAccessStruct* entryOf(int32_t iVarID_Abs) {
    Location loc;
    if (!catalogue::toRelative(iVarID_Abs, loc)) return nullptr;
    return &catalogue::entry(loc.iFileIndex, loc.iVarID_Rel);
}
}  // namespace

extern "C" {

CM_EXPORT int CM_GetVarIdFromName(const char* szName, int iLen, int32_t* piVarID_Abs) {
    if (szName == nullptr || piVarID_Abs == nullptr || iLen < 0) {
        CM_LOG(log::kErr, "CM_GetVarIdFromName", "Arg ptrs NULL\n");
        return -1;
    }
    const int id = catalogue::varIdFromName({szName, static_cast<size_t>(iLen)});
    if (id < 0) return -1;
    *piVarID_Abs = id;
    return 0;
}

CM_EXPORT int CM_ConvertAbsolute2Relative(int32_t iVarID_Abs, int32_t* piVarID_Rel, int32_t* piFileIndex) {
    if (piVarID_Rel == nullptr || piFileIndex == nullptr) {
        CM_LOG(log::kErr, "CM_ConvertAbsolute2Relative", "Process PID=%d:%d Arg ptrs NULL\n", getpid(),
               platform::tid());
        return -1;
    }
    Location loc;
    if (!catalogue::toRelative(iVarID_Abs, loc)) return -1;
    *piVarID_Rel = loc.iVarID_Rel;
    *piFileIndex = loc.iFileIndex;
    return 0;
}

CM_EXPORT int CM_GetDataTypeFromVarId(int32_t iVarID_Abs, uint32_t* pdwType) {
    const auto* e = entryOf(iVarID_Abs);
    if (e == nullptr) return -1;
    if (pdwType) *pdwType = e->ucDataType;
    return 0;
}

CM_EXPORT int CM_GetDataSizeFromVarId(int32_t iVarID_Abs, uint32_t* pdwSize) {
    const auto* e = entryOf(iVarID_Abs);
    if (e == nullptr) return -1;
    if (pdwSize) *pdwSize = e->wDataSize;
    return 0;
}

CM_EXPORT int CM_GetCMvarBounds(int32_t iVarID_Abs, uint8_t* pucType, uint32_t* pdwMin, uint32_t* pdwMax) {
    if (iVarID_Abs >= catalogue::kNumVarIds) {
        CM_LOG(log::kErr, "CM_GetCMvarBounds", "Invalid Var Id of %d\n", iVarID_Abs);
        return -1;
    }
    const auto* e = entryOf(iVarID_Abs);
    if (e == nullptr) return -1;
    if (pucType) *pucType = e->ucDataType;
    if (pdwMin) *pdwMin = e->dwMin;
    if (pdwMax) *pdwMax = e->dwMax;
    return 0;
}

namespace {
// The queries by file index and relative ID answer "no" for a pair that
// names no variable, rather than read outside the catalogue.
bool inCatalogue(int32_t i, int32_t rel) {
    return i >= 0 && i < catalogue::kNumFiles && rel >= 0 && rel < catalogue::sConfigItemList[i].iNumItems;
}
}  // namespace

CM_EXPORT int CM_GetTellCMSInternal(int32_t iFileIndex, int32_t iVarID_Rel) {
    if (!inCatalogue(iFileIndex, iVarID_Rel)) return 0;
    return catalogue::entry(iFileIndex, iVarID_Rel).reportable() ? 1 : 0;
}

CM_EXPORT int CM_ItemoDataTypeIsDT_IPADDR(int32_t iFileIndex, int32_t iVarID_Rel) {
    if (!inCatalogue(iFileIndex, iVarID_Rel)) return 0;
    return catalogue::entry(iFileIndex, iVarID_Rel).ucDataType == DT_IPADDR ? 1 : 0;
}

CM_EXPORT int CM_ItemoDataTypeIsDT_PASSWORD(int32_t iFileIndex, int32_t iVarID_Rel) {
    if (!inCatalogue(iFileIndex, iVarID_Rel)) return 0;
    return catalogue::entry(iFileIndex, iVarID_Rel).ucDataType == DT_PASSWORD ? 1 : 0;
}

CM_EXPORT const char* CM_GetDataItemVariableName(int32_t iVarID_Abs) {
    if (!process::started()) return "(not initialised)";
    const char* tag = catalogue::tagOf(iVarID_Abs);
    return tag ? tag : "(invalid iVarID_Abs)";
}

CM_EXPORT int32_t CM_GetNextReportableVariable(int32_t iVarID_Abs) { return catalogue::nextReportable(iVarID_Abs); }

CM_EXPORT const char* CM_GetCMvarTag(int32_t iVarID_Abs) { return catalogue::tagOf(iVarID_Abs); }

}
