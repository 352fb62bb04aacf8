#include "notify/var_list.h"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "catalogue/lookup.h"
#include "log/log.h"
#include "storage/record.h"

namespace cm::notify {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;

std::atomic<uint8_t*> s_poaCM_ChangedVarList{nullptr};
pthread_mutex_t mCMListAdd = PTHREAD_MUTEX_INITIALIZER;
std::atomic<CM_NotifyCallback> pfnCmsifNotifyVCCB{nullptr};
std::atomic<uint8_t> bFullProfile{0};

bool bitSet(const uint8_t* list, int32_t id) { return (list[id >> 3] & (1u << (id & 7))) != 0; }

}  // namespace

int registerCmsifCallback(CM_NotifyCallback pfnCmsifNotify) {
    CM_NotifyCallback expected = nullptr;
    if (pfnCmsifNotifyVCCB.compare_exchange_strong(expected, pfnCmsifNotify)) return CM_OK;
    CM_LOG(log::kErr, "CM_Register_CMSIF_Var_Changed_CB", "Function pointer already set\n");
    return CM_ERR_NO_FILE;
}

bool cmsifCallbackInstalled() { return pfnCmsifNotifyVCCB.load(std::memory_order_relaxed) != nullptr; }

int initVarList() {
    constexpr const char* fn = "CM_Init_Var_List";
    if (s_poaCM_ChangedVarList.load() != nullptr) {
        CM_LOG(log::kErr, fn, "pointer already initialised\n");
        return CM_ERR_NO_FILE;
    }
    auto* list = static_cast<uint8_t*>(std::calloc(kVarListBytes, 1));
    if (list == nullptr) {
        CM_LOG(log::kErr, fn, "calloc failed\n");
        return CM_ERR_NO_FILE;
    }
    uint8_t* expected = nullptr;
    if (!s_poaCM_ChangedVarList.compare_exchange_strong(expected, list)) {
        std::free(list);
        CM_LOG(log::kErr, fn, "pointer already initialised\n");
        return CM_ERR_NO_FILE;
    }
    return CM_OK;
}

int addToList(uint8_t* pList, int32_t id) {
    if (pList == nullptr) return 0;
    if (id < 0 || id > catalogue::kNumVarIds) {
        CM_LOG(log::kErr, "CM_Add_To_List", "Invalid variable ID (%d)\n", id);
        return CM_ERR_INVALID;
    }
    if (pthread_mutex_lock(&mCMListAdd) != 0) {
        CM_LOG(log::kErr, "CM_Add_To_List", "lock failed\n");
        return 0;
    }
    pList[id >> 3] |= static_cast<uint8_t>(1u << (id & 7));
    pthread_mutex_unlock(&mCMListAdd);
    return 0;
}

int noteVarUnchanged(int32_t id) {
    if (static_cast<uint32_t>(id) > catalogue::kMaxVarId) return CM_ERR_INVALID;
    return addToList(s_poaCM_ChangedVarList.load(), id);
}

int getVarList(uint8_t* pDest) {
    uint8_t* list = s_poaCM_ChangedVarList.load();
    if (pDest == nullptr || list == nullptr) {
        CM_LOG(log::kErr, "CM_Get_Var_List", "Bad pointers %p & %p\n", static_cast<void*>(pDest),
               static_cast<void*>(list));
        return CM_ERR_NO_FILE;
    }
    std::memcpy(pDest, list, kVarListBytes);
    return CM_OK;
}

int32_t getNextVariable(uint8_t* pCopy, int32_t iPrevID) {
    constexpr const char* fn = "CM_Get_Next_Variable";
    if (pCopy == nullptr) {
        CM_LOG(log::kErr, fn, "Bad pointer %p\n", static_cast<void*>(pCopy));
        return CM_ERR_NO_FILE;
    }
    if (static_cast<uint32_t>(iPrevID) > static_cast<uint32_t>(catalogue::kNumVarIds)) {
        CM_LOG(log::kErr, fn, "Invalid variable ID (%d)\n", iPrevID);
        return CM_ERR_INVALID;
    }
    const int32_t prev = iPrevID == catalogue::kNumVarIds ? -1 : iPrevID;
    // The end marker (ID 3290) guarantees that the scan stops on 3290.
    pCopy[catalogue::kNumVarIds >> 3] |= static_cast<uint8_t>(1u << (catalogue::kNumVarIds & 7));
    for (size_t byte = static_cast<size_t>(prev + 1) >> 3; byte < kVarListBytes; ++byte) {
        if (pCopy[byte] == 0) continue;
        for (int bit = 0; bit < 8; ++bit) {
            const int32_t id = static_cast<int32_t>(byte * 8 + bit);
            if (id > prev && (pCopy[byte] & (1u << bit))) return id;
        }
    }
    CM_LOG(log::kErr, fn, "Huh ? Should never be here !\n");
    return catalogue::kNumVarIds;
}

int clearVarList() {
    uint8_t* list = s_poaCM_ChangedVarList.load();
    if (list == nullptr) {
        CM_LOG(log::kErr, "CM_Clear_Var_List", "Changed var list ptr should not be null in CMSIF Instance of CM\n");
        return CM_ERR_NO_FILE;
    }
    std::memset(list, 0, kVarListBytes);
    return CM_OK;
}

void maybeTellCmsif(int32_t id) {
    constexpr const char* fn = "CM_MaybeTellCMSIF";
    catalogue::Location loc;
    if (!catalogue::toRelative(id, loc)) {
        CM_LOG(log::kErr, fn, "Invalid CM variable ID = %d\n", id);
        return;
    }
    if (!catalogue::entry(loc.iFileIndex, loc.iVarID_Rel).reportable()) return;
    uint8_t flag = 0;
    if (storage::getDataItem(0, &flag) != 0) {
        CM_LOG(log::kErr, fn, "Failed to read CM_FLAG for variable id %d ?\n", id);
        flag = CM_FLAG_IDLE;
    }
    const CM_NotifyCallback cb = pfnCmsifNotifyVCCB.load();
    uint8_t* list = s_poaCM_ChangedVarList.load();
    switch (flag) {
        // Without a CMSIF callback there is nobody to tell.
        case CM_FLAG_IDLE:
            if (cb != nullptr) cb(id);
            break;
        case CM_FLAG_PROFILE_DOWNLOAD:
            if (cb != nullptr && bFullProfile.load() == 0 && !(list != nullptr && bitSet(list, id))) cb(id);
            break;
        case CM_FLAG_BATCH_CHANGE:
            addToList(list, id);
            break;
        default:
            break;
    }
}

void setFullProfile(bool on) { bFullProfile.store(on ? 1 : 0); }

}  // namespace cm::notify
