/*
 * Batch changes and profile downloads.
 *
 * A batch change tells the management-interface (CMSIF) process that a group
 * of changes belongs together.  CM_Start_Batch_Data_Change sends a start
 * message on the CMSIF process's input queue "/CMSIF_InputMessages" and
 * opens, for writing, the two queues the CMSIF process then creates for the
 * batch: "<base>.ChangesCompleteQ" (the end queue) and "<base>.XmlFileNamesQ"
 * (the files queue), where <base> is "/CMSIFMQ<thread>.<counter as %2d>".
 * The caller writes the names of its batch's files to the files queue and
 * ends with CM_End_Batch_Data_Change, which sends the 116-byte completion
 * message on the end queue.  While the batch runs CM_FLAG holds 2; this
 * library does not set it back.
 *
 * The queue opens wait, retrying every second and without limit, while the
 * CMSIF process has not created the queue yet.
 *
 * A profile download sets CM_FLAG to 1: every CM_Set_Variable on the device
 * is then dropped (reporting success) until CM_End_Prof_Download.
 */
#ifndef CONFIGMANAGER_CM_BATCH_H
#define CONFIGMANAGER_CM_BATCH_H

#include <mqueue.h>
#include <stdint.h>

#include "configmanager/cm_types.h"

/* Size of the start and completion messages. */
#define CM_BATCH_MSG_SIZE 116
/* Message type of the start message (bytes 8-11, big-endian). */
#define CM_BATCH_MSG_START 4

CM_EXTERN_C_BEGIN

/* 0, or -21 (queue open or send failure; also for null pointers, an
 * extension).  Both outputs are -1 until their queue is open. */
CM_EXPORT int CM_Start_Batch_Data_Change(mqd_t* pEndQ, mqd_t* pFilesQ);

/* Closes the files queue, sends the completion message on the end queue and
 * closes it.  0, or -13 (a descriptor of -1, a failed send or close; also
 * for null pointers, an extension).  Each descriptor is set to -1 once
 * closed. */
CM_EXPORT int CM_End_Batch_Data_Change(mqd_t* pEndQ, mqd_t* pFilesQ);

/* Marks a profile download in progress (CM_FLAG = 1) and clears the CMSIF
 * changed-variable list.  bFullProfile non-zero: a full profile.  The sum of
 * the two results. */
CM_EXPORT int CM_Start_Prof_Download(uint8_t bFullProfile);

/* Ends it (CM_FLAG = 0).  The set's result. */
CM_EXPORT int CM_End_Prof_Download(void);

CM_EXTERN_C_END

#endif
