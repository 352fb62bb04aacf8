#include "vars.h"

#include <algorithm>

#include <configmanager/configmanager.h>

#include "context.h"
#include "suggest.h"

namespace cmctl {

VarInfo varInfo(int32_t id) {
    VarInfo v;
    v.id = id;
    int32_t rel = -1, file = -1;
    CM_ConvertAbsolute2Relative(id, &rel, &file);
    v.fileIndex = file;
    v.relId = rel;
    const char* tag = CM_GetCMvarTag(id);
    v.name = tag ? tag : "";
    uint8_t type = 0;
    CM_GetCMvarBounds(id, &type, &v.min, &v.max);
    v.type = type;
    CM_GetDataSizeFromVarId(id, &v.size);
    CM_Ext_GetDefaultsGroup(id, &v.group);
    v.reported = CM_GetTellCMSInternal(file, rel) != 0;
    return v;
}

const std::vector<VarInfo>& allVars() {
    static const std::vector<VarInfo> all = [] {
        std::vector<VarInfo> out;
        for (int32_t id = 0; id <= CM_MAX_VAR_ID; ++id) {
            int32_t rel = -1, file = -1;
            if (CM_ConvertAbsolute2Relative(id, &rel, &file) == 0) out.push_back(varInfo(id));
        }
        return out;
    }();
    return all;
}

namespace {

std::vector<std::string> allNames() {
    std::vector<std::string> names;
    for (const VarInfo& v : allVars()) names.push_back(v.name);
    return names;
}

}  // namespace

const VarInfo* findVar(const std::string& name) {
    int32_t id = -1;
    if (name.empty() || CM_GetVarIdFromName(name.data(), static_cast<int>(name.size()), &id) != 0) return nullptr;
    for (const VarInfo& v : allVars())
        if (v.id == id) return &v;
    return nullptr;
}

std::string unknownVariable(const std::string& name) {
    return name + ": no such variable" + didYouMean(name, allNames());
}

std::vector<const VarInfo*> varsWithPrefix(const std::string& prefix) {
    std::vector<const VarInfo*> out;
    for (const VarInfo& v : allVars())
        if (v.name.compare(0, prefix.size(), prefix) == 0) out.push_back(&v);
    return out;
}

std::vector<const VarInfo*> selectVars(const std::vector<std::string>& args) {
    if (args.empty()) return varsWithPrefix("");
    std::vector<bool> chosen(CM_NUM_VAR_IDS, false);
    for (const std::string& a : args) {
        int32_t id = -1;
        if (!a.empty() && CM_GetVarIdFromName(a.data(), static_cast<int>(a.size()), &id) == 0) {
            chosen[id] = true;
            continue;
        }
        const auto matches = varsWithPrefix(a);
        if (a.empty() || matches.empty())
            throw Failure(a + ": no variable has this name or prefix" + didYouMean(a, allNames()));
        for (const VarInfo* v : matches) chosen[v->id] = true;
    }
    std::vector<const VarInfo*> out;
    for (const VarInfo& v : allVars())
        if (chosen[v.id]) out.push_back(&v);
    return out;
}

const char* typeName(uint32_t type) {
    static const char* const names[] = {"octet", "word", "dword", "string", "octet-string", "ipaddr", "password"};
    return type < 7 ? names[type] : "unknown";
}

}  // namespace cmctl
