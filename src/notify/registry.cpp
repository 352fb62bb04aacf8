#include "notify/registry.h"

#include <cstdlib>
#include <cstring>

#include "catalogue/catalogue.h"
#include "log/log.h"
#include "notify/var_list.h"
#include "process/state.h"

namespace cm::notify {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
constexpr uint32_t kRegErr = 0x100003;
constexpr uint32_t kRegNotice = 0x100005;

struct Node {
    CM_NotifyCallback pfnCallback;
    Node* pNext;
};

// One list head per absolute ID; guarded by mCMcallback.
Node* NotifyList[catalogue::kNumVarIds];

void* asPtr(CM_NotifyCallback f) {
    void* p;
    static_assert(sizeof p == sizeof f);
    std::memcpy(&p, &f, sizeof p);
    return p;
}

// Runs the callbacks of one variable; mCMcallback is held.
int runCallbacks(int32_t id) {
    int count = 0;
    for (Node* n = NotifyList[id]; n != nullptr; n = n->pNext) {
        n->pfnCallback(id);
        ++count;
    }
    return count;
}

bool lockRegistry(const char* fn) {
    const int rc = pthread_mutex_lock(&process::mCMcallback);
    if (rc == 0) return true;
    CM_LOG(log::kErr, fn, "CM - mCMcallback lock failed in CM_Notify: %s\n", std::strerror(rc));
    return false;
}

}  // namespace

int registerInterest(int32_t id, CM_NotifyCallback pfnCallback) {
    constexpr const char* fn = "CM_Register_Interest";
    if (pfnCallback == nullptr) {
        CM_LOG(kRegErr, fn, "NULL function for CM var ID=%d\n", id);
        return CM_ERR_NULL_OR_NOMEM;
    }
    // The message texts are crossed with the codes on purpose: callers match
    // on both as they have always been paired.
    if (process::ucCMInitialised == 0) {
        if (id > catalogue::kMaxVarId) {
            CM_LOG(kRegErr, fn, "CM lib not initialised, for CM var ID=%d function 0x%p\n", id, asPtr(pfnCallback));
            return CM_ERR_NOT_STARTED_OR_ID;
        }
        CM_LOG(kRegErr, fn, "Bad CM var ID=%d for function 0x%p\n", id, asPtr(pfnCallback));
        return CM_ERR_INVALID;
    }
    if (id > catalogue::kMaxVarId) {
        CM_LOG(kRegErr, fn, "CM lib not initialised, for CM var ID=%d function 0x%p\n", id, asPtr(pfnCallback));
        return CM_ERR_NOT_STARTED_OR_ID;
    }
    if (id < 0 || pthread_mutex_lock(&process::mCMcallback) != 0) {
        // A negative ID would index outside the registry; it is refused as a bad ID.
        CM_LOG(kRegErr, fn, "Bad CM var ID=%d for function 0x%p\n", id, asPtr(pfnCallback));
        return CM_ERR_INVALID;
    }
    Node** link = &NotifyList[id];
    for (; *link != nullptr; link = &(*link)->pNext) {
        if ((*link)->pfnCallback == pfnCallback) {
            CM_LOG(kRegNotice, fn, "Ignored repeated register of function 0x%p for CM var ID=%d\n",
                   asPtr(pfnCallback), id);
            pthread_mutex_unlock(&process::mCMcallback);
            return CM_ERR_REPEATED;
        }
    }
    auto* node = static_cast<Node*>(std::malloc(sizeof(Node)));
    if (node == nullptr) {
        CM_LOG(kRegErr, fn, "Failed malloc(%zu) to register function 0x%p for CM var ID=%d\n", sizeof(Node),
               asPtr(pfnCallback), id);
        pthread_mutex_unlock(&process::mCMcallback);
        return CM_ERR_NULL_OR_NOMEM;
    }
    *node = {pfnCallback, nullptr};
    *link = node;
    pthread_mutex_unlock(&process::mCMcallback);
    return CM_OK;
}

int unregisterInterest(int32_t id, CM_NotifyCallback pfnCallback) {
    if (id > catalogue::kMaxVarId) return CM_ERR_NOT_STARTED_OR_ID;
    if (process::ucCMInitialised == 0 || id < 0) return CM_ERR_INVALID;
    if (pthread_mutex_lock(&process::mCMcallback) != 0) return CM_ERR_INVALID;
    for (Node** link = &NotifyList[id]; *link != nullptr; link = &(*link)->pNext) {
        if ((*link)->pfnCallback == pfnCallback) {
            Node* gone = *link;
            *link = gone->pNext;
            std::free(gone);
            pthread_mutex_unlock(&process::mCMcallback);
            return CM_OK;
        }
    }
    CM_LOG(log::kErr, "CM_Unregister_Interest", "VarId %d not registered, ignore request\n", id);
    pthread_mutex_unlock(&process::mCMcallback);
    return CM_OK;
}

int notify(int32_t id) {
    CM_LOG_TAGGED(log::kDebug, "CM_Notify called for var %d\n", id);
    if (!lockRegistry("CM_Notify")) return 0;
    const int count = (id >= 0 && id < catalogue::kNumVarIds) ? runCallbacks(id) : 0;
    CM_LOG_TAGGED(log::kDebug, "CM - Notified %i tasks of the change to variable with ID %d.\n", count, id);
    if (cmsifCallbackInstalled()) maybeTellCmsif(id);
    pthread_mutex_unlock(&process::mCMcallback);
    return 0;
}

int notifyRange(int32_t iFirst, int32_t iLast) {
    CM_LOG_TAGGED(log::kDebug, "CM_Notify called for var range %d to %d \n", iFirst, iLast);
    if (!lockRegistry("CM_NotifyRange")) return 0;
    // IDs outside 0..3289 have no callbacks and nothing to tell; the walk is
    // kept to the IDs that exist (a 64-bit counter could not overflow either,
    // but a range to INT_MAX would take minutes of nothing).
    const int32_t first = iFirst < 0 ? 0 : iFirst;
    const int32_t last = iLast >= catalogue::kNumVarIds ? catalogue::kNumVarIds - 1 : iLast;
    for (int32_t id = first; id <= last; ++id) {
        const int count = runCallbacks(id);
        if (count > 0) CM_LOG_TAGGED(log::kDebug, "CM - %i notify actions called for variable with ID %d.\n", count, id);
        if (cmsifCallbackInstalled()) maybeTellCmsif(id);
    }
    pthread_mutex_unlock(&process::mCMcallback);
    return 0;
}

void clearRegistry() {
    for (Node*& head : NotifyList) head = nullptr;
}

}  // namespace cm::notify
