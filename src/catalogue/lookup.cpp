#include "catalogue/lookup.h"

#include <unistd.h>

#include <cstring>

#include "log/log.h"
#include "platform/env.h"

namespace cm::catalogue {
namespace {
constexpr auto kLogModule = log::Module::FileAccess;
}

int varIdFromName(std::string_view name) {
    // Walk in file and entry order so that the first match wins, as callers
    // expect; the tag must have exactly the given length.
    for (int f = 0; f < kNumFiles; ++f) {
        const ConfigItemList& file = sConfigItemList[f];
        for (int r = 0; r < file.iNumItems; ++r) {
            const char* tag = file.pItems[r].szVarTag;
            if (std::strlen(tag) == name.size() && std::memcmp(tag, name.data(), name.size()) == 0)
                return file.iFirstVarID + r;
        }
    }
    return -1;
}

bool toRelative(int32_t iVarID_Abs, Location& out) {
    if (locate(iVarID_Abs, out)) return true;
    CM_LOG(log::kErr, "CM_ConvertAbsolute2Relative", "Process PID=%d:%d Could not find Abs VarID %d\n", getpid(),
           platform::tid(), iVarID_Abs);
    return false;
}

int32_t nextReportable(int32_t after) {
    Location at{0, 0};
    if (after != kNumVarIds) {
        if (!toRelative(after, at)) return -1;
        ++at.iVarID_Rel;
    }
    for (int f = at.iFileIndex; f < kNumFiles; ++f) {
        const ConfigItemList& file = sConfigItemList[f];
        for (int r = (f == at.iFileIndex ? at.iVarID_Rel : 0); r < file.iNumItems; ++r)
            if (static_cast<int32_t>(file.pItems[r].dwFlags) < 0) return file.iFirstVarID + r;
    }
    return kNumVarIds;
}

const char* tagOf(int32_t iVarID_Abs) {
    if (iVarID_Abs >= kNumVarIds) {
        CM_LOG(log::kErr, "CM_GetCMvarTag", "Process PID=%d:%d Bad CM var ID=%d (range is 0 to %d)\n", getpid(),
               platform::tid(), iVarID_Abs, kMaxVarId);
        return nullptr;
    }
    Location loc;
    if (!toRelative(iVarID_Abs, loc)) return nullptr;
    return entry(loc.iFileIndex, loc.iVarID_Rel).szVarTag;
}

}  // namespace cm::catalogue
