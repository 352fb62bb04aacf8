// Batch changes and profile downloads, announced to the management-interface
// (CMSIF) process.
//
// A batch: the caller asks the CMSIF process, through its input queue, for
// two queues of its own (named after the calling thread and a per-process
// counter), writes the names of its files to one of them and at the end
// sends a completion message on the other.  While a batch runs CM_FLAG holds
// 2.  A profile download sets CM_FLAG to 1, which makes every ordinary set
// on the device a no-op until it ends.
#pragma once

#include <mqueue.h>

#include <cstddef>
#include <cstdint>

namespace cm::batch {

inline constexpr const char* kInputQueue = "/CMSIF_InputMessages";
inline constexpr const char* kEndQueueSuffix = ".ChangesCompleteQ";
inline constexpr const char* kFilesQueueSuffix = ".XmlFileNamesQ";
inline constexpr size_t kMessageSize = 116;
inline constexpr size_t kMaxBaseName = 26;
inline constexpr uint32_t kStartBatchType = 4;

// 0, or -21.  Both outputs are -1 until their queue is open.
int startBatch(mqd_t* pEndQ, mqd_t* pFilesQ);
// 0, or -13.  Each descriptor is set to -1 once closed.
int endBatch(mqd_t* pEndQ, mqd_t* pFilesQ);

int startProfDownload(uint8_t bFull);
int endProfDownload();

}  // namespace cm::batch
