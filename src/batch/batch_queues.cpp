// Starting and ending a batch change: the CMSIF input queue and the two
// per-batch queues.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "batch/batch.h"
#include "configmanager/cm_types.h"
#include "getset/getset.h"
#include "log/log.h"
#include "platform/env.h"

namespace cm::batch {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
constexpr mqd_t kNoQueue = static_cast<mqd_t>(-1);

// Read and then incremented for every batch; wraps from 255 to 0.
std::atomic<uint8_t> s_oBatchUnique{0};

// A queue that another user owns, or that others may write to, could have
// been made by anyone to catch what is sent on it: it counts as one that
// cannot be opened (errno EACCES).
bool trustedQueue(mqd_t q) {
    struct stat st{};
    if (fstat(static_cast<int>(q), &st) != 0) return false;
    return (st.st_uid == geteuid() || st.st_uid == 0) && (st.st_mode & S_IWOTH) == 0;
}

// Opens a queue for writing.  The CMSIF process may not be up yet, or may
// not have created the batch queues yet: while the queue is missing (or the
// open is interrupted) wait a second and try again, for as long as it takes.
// Queue descriptors are close-on-exec from birth (the kernel makes them so;
// the flag is asked for all the same).
mqd_t openForWriting(const std::string& deviceName) {
    const std::string name = platform::queueName(deviceName);
    for (;;) {
        const mqd_t q = mq_open(name.c_str(), O_WRONLY | O_CLOEXEC);
        if (q != kNoQueue) {
            if (trustedQueue(q)) return q;
            mq_close(q);
            errno = EACCES;
            return kNoQueue;
        }
        if (errno != EINTR && errno != ENOENT) return kNoQueue;
        platform::sleepSeconds(1);
    }
}

// Start message: type 4 (big-endian) at bytes 8-11, the base name from 12.
void buildStartMessage(char (&msg)[kMessageSize], const char* base) {
    std::memset(msg, 0, sizeof msg);
    msg[8] = static_cast<char>(kStartBatchType >> 24);
    msg[9] = static_cast<char>(kStartBatchType >> 16);
    msg[10] = static_cast<char>(kStartBatchType >> 8);
    msg[11] = static_cast<char>(kStartBatchType);
    std::strncpy(msg + 12, base, kMessageSize - 13);
}

}  // namespace

int startBatch(mqd_t* pEndQ, mqd_t* pFilesQ) {
    constexpr const char* fn = "CM_Start_Batch_Data_Change";
    if (pEndQ == nullptr || pFilesQ == nullptr) return CM_ERR_NO_FILE;
    *pEndQ = *pFilesQ = kNoQueue;

    unsigned long ulId = static_cast<unsigned long>(pthread_self());
    if (ulId == 0) ulId = static_cast<unsigned long>(getpid());
    if (ulId == 0) CM_LOG(log::kErr, fn, "Get thread id and pid both returned 0\n");

    // "%2d" pads counters below 10 with a blank, which the CMSIF process
    // expects as part of the name.
    char base[kMaxBaseName + 1];
    const int counter = s_oBatchUnique.fetch_add(1);
    const int n = std::snprintf(base, sizeof base, "/CMSIFMQ%lu.%2d", ulId, counter);
    if (n > static_cast<int>(kMaxBaseName)) CM_LOG(log::kErr, fn, "snprintf returned %d, ulId=%lu\n", n, ulId);

    const mqd_t gen = openForWriting(kInputQueue);
    if (gen == kNoQueue) {
        CM_LOG(log::kErr, fn, "mq_open failed (Gen Q) (%d) : %m\n", errno);
        return CM_ERR_NO_FILE;
    }
    char msg[kMessageSize];
    buildStartMessage(msg, base);
    const bool sent = mq_send(gen, msg, sizeof msg, 1) == 0;
    if (!sent) CM_LOG(log::kErr, fn, "mq_send failed (Gen Q) (%d) : %m\n", errno);
    if (mq_close(gen) != 0) CM_LOG(log::kErr, fn, "mq_close failed (Rqst Q) (%d) : %m\n", errno);
    if (!sent) return CM_ERR_NO_FILE;

    const mqd_t endQ = openForWriting(std::string(base) + kEndQueueSuffix);
    if (endQ == kNoQueue) {
        CM_LOG(log::kErr, fn, "mq_open failed (Q3) (%d) : %m\n", errno);
        return CM_ERR_NO_FILE;
    }
    *pEndQ = endQ;
    const mqd_t filesQ = openForWriting(std::string(base) + kFilesQueueSuffix);
    if (filesQ == kNoQueue) {
        CM_LOG(log::kErr, fn, "mq_open failed (Q2) (%d) : %m\n", errno);
        if (mq_close(endQ) != 0) CM_LOG(log::kErr, fn, "mq_close failed (Q3) (%d) : %m\n", errno);
        *pEndQ = kNoQueue;
        return CM_ERR_NO_FILE;
    }
    *pFilesQ = filesQ;

    const uint8_t flag = CM_FLAG_BATCH_CHANGE;
    const int rc = getset::setVariable(0, &flag);
    if (rc != 0) CM_LOG(log::kErr, fn, "Failed to set batch change in prog flag (%d)\n", rc);
    return CM_OK;
}

int endBatch(mqd_t* pEndQ, mqd_t* pFilesQ) {
    constexpr const char* fn = "CM_End_Batch_Data_Change";
    constexpr int kFailed = -13;
    if (pEndQ == nullptr || pFilesQ == nullptr) return kFailed;
    int result = CM_OK;
    if (*pFilesQ == kNoQueue) {
        CM_LOG(log::kErr, fn, "Invalid (files) msg Q id (-1)\n");
        result = kFailed;
    } else if (mq_close(*pFilesQ) != 0) {
        CM_LOG(log::kErr, fn, "mq_close (files) failed (%d) : %m\n", errno);
        result = kFailed;
    } else {
        *pFilesQ = kNoQueue;
    }

    if (*pEndQ == kNoQueue) {
        CM_LOG(log::kErr, fn, "Invalid (End) msg Q id (-1)\n");
        return kFailed;
    }
    const char msg[kMessageSize] = {};
    if (mq_send(*pEndQ, msg, sizeof msg, 1) != 0) {
        CM_LOG(log::kErr, fn, "Msg send failed (%d) : %m\n", errno);
        result = kFailed;
    }
    if (mq_close(*pEndQ) != 0) {
        CM_LOG(log::kErr, fn, "mq_close (End) failed (%d) : %m\n", errno);
        return kFailed;
    }
    *pEndQ = kNoQueue;
    return result;
}

}  // namespace cm::batch
