// C entry points of batch changes and profile downloads.
#include "batch/batch.h"
#include "configmanager/cm_batch.h"

using namespace cm;

extern "C" {

CM_EXPORT int CM_Start_Batch_Data_Change(mqd_t* pEndQ, mqd_t* pFilesQ) { return batch::startBatch(pEndQ, pFilesQ); }
CM_EXPORT int CM_End_Batch_Data_Change(mqd_t* pEndQ, mqd_t* pFilesQ) { return batch::endBatch(pEndQ, pFilesQ); }
CM_EXPORT int CM_Start_Prof_Download(uint8_t bFullProfile) { return batch::startProfDownload(bFullProfile); }
CM_EXPORT int CM_End_Prof_Download(void) { return batch::endProfDownload(); }

}
