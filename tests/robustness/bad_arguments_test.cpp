// Every exported function with arguments, given extreme values and null
// pointers before and after a start, in a child with an alarm: none may
// crash or hang; a shared word names the call under way.
#include <sys/mman.h>

#include "support/test_support.h"

namespace {

using Call = void (*)(int32_t v);
#define ROW(expr) {#expr, [](int32_t v) { (void)v, (void)(expr); }}

const struct {
    const char* text;
    Call call;
} kCalls[] = {
    ROW(ApplogAllowed(static_cast<uint32_t>(v))), ROW(fnActionConsoleLog(v)), ROW(LogModeChanged(v)),
    ROW(LogFilterChanged(v)), ROW(RemoteLogChanged(v)), ROW(RemoteLog(static_cast<uint32_t>(v), v, nullptr)),
    ROW(CM_BackupConfig_common(nullptr, v, v)), ROW(CM_RestoreConfig(nullptr, nullptr)),
    ROW(CM_Start_Batch_Data_Change(nullptr, nullptr)), ROW(CM_End_Batch_Data_Change(nullptr, nullptr)),
    ROW(CM_Get_Variable(v, nullptr)), ROW(CM_Get_Variable_Log_Error(v, nullptr)),
    ROW(CM_Get_Variable_Default_Value(v, nullptr)), ROW(CM_Get_Variable_Check_Value(v, nullptr)),
    ROW(CM_Set_Variable(v, nullptr)), ROW(CM_Set_Variable_Log_Error(v, nullptr)),
    ROW(CM_Set_Variable_CMI(v, nullptr, v)), ROW(CM_Set_Variable_CMI_Log_Error(v, nullptr, v)),
    ROW(CM_Host_QueueName(nullptr, nullptr, v)), ROW(CM_GetVarIdFromName(nullptr, v, nullptr)),
    ROW(CM_ConvertAbsolute2Relative(v, nullptr, nullptr)), ROW(CM_GetDataTypeFromVarId(v, nullptr)),
    ROW(CM_GetDataSizeFromVarId(v, nullptr)), ROW(CM_GetCMvarBounds(v, nullptr, nullptr, nullptr)),
    ROW(CM_GetTellCMSInternal(v, v)), ROW(CM_GetTellCMSInternal(0, v)), ROW(CM_GetTellCMSInternal(v, 0)),
    ROW(CM_ItemoDataTypeIsDT_IPADDR(v, v)), ROW(CM_ItemoDataTypeIsDT_IPADDR(0, v)),
    ROW(CM_ItemoDataTypeIsDT_PASSWORD(v, v)), ROW(CM_ItemoDataTypeIsDT_PASSWORD(0, v)),
    ROW(CM_ItemoDataTypeIsDT_PASSWORD(v, 0)), ROW(CM_GetDataItemVariableName(v)),
    ROW(CM_GetNextReportableVariable(v)), ROW(CM_GetCMvarTag(v)), ROW(CM_Register_Interest(v, nullptr)),
    ROW(CM_Unregister_Interest(v, nullptr)), ROW(CM_Notify(v)), ROW(CM_NotifyRange(v, v)),
    ROW(CM_NotifyRange(0, v)), ROW(CM_Note_Var_Unchanged(v)), ROW(CM_Get_Var_List(nullptr)),
    ROW(CM_Get_Next_Variable(nullptr, v)), ROW(CM_GetNotifiedDataItem(v, nullptr)),
    ROW(CM_SetUpConfigFile(v)), ROW(CM_InitialiseDataStruct(v, v, v)), ROW(CM_ActionChangesToAllNewItems(v)),
    ROW(CM_AddInotifyWatch(v)), ROW(CM_RemoveInotifyWatch(v)), ROW(CM_MaybeTellCMSIF(v)),
    ROW(CM_Add_To_List(nullptr, v)), ROW(CM_LockFile(v, v, v)), ROW(CM_UnLockFile(v, v, v)),
    ROW(CM_InitialisePrevData(v)), ROW(CM_ReadDataItem(v, v, nullptr)), ROW(CM_WriteDataItem(v, v, nullptr, v)),
    ROW(CM_GetDataItem(v, nullptr)), ROW(CM_PutDataItem(v, nullptr)), ROW(CM_GetDataItemDefaultValue(v, nullptr)),
    ROW(CM_GetDefaultData(v, v, nullptr)), ROW(CM_CopyData(v, v, nullptr, nullptr)),
    ROW(CM_WriteDefaultData(v, v, v)), ROW(CM_WriteDefaultDataItems(v, v)), ROW(CM_UpdateCRC(v)),
    ROW(CM_FindMatchingCMvarTag(nullptr, nullptr)), ROW(CM_FindFileIndexRelativeIDCMTag(nullptr, nullptr, nullptr)),
    ROW(CM_Ext_GetFileInfo(v, nullptr)), ROW(CM_Ext_GetDefaultsGroup(v, nullptr)),
    ROW(CM_Ext_CheckFile(v, nullptr, nullptr, v)), ROW(SockaddrToCMAddr(nullptr, nullptr)),
    ROW(CMaddrToSockAddr(nullptr, nullptr)), ROW(CM_GetDataItemToString(v, nullptr)),
    ROW(CM_Get_Var_Value_As_String(v, nullptr)), ROW(CM_PutDataItemFromString(v, nullptr)),
    ROW(CM_Get_Passwd(v, nullptr)), ROW(CM_GetDataItemPasswd(v, nullptr)),
    ROW(ConvertStringToIpAddress(nullptr, nullptr)), ROW(CopyAddressToString(nullptr, nullptr, v)),
    ROW(CM_Host_SetRootDirectory(nullptr)), ROW(CM_CompareVarNames(nullptr, nullptr)),
    ROW(CM_Start_Prof_Download(static_cast<uint8_t>(v))), ROW(Applog_default(static_cast<uint32_t>(v))),
    ROW(Applog_init(v, v)), ROW(CM_OpenFile(v)), ROW(CM_OpenOrCreateFile(v)), ROW(CM_MapFile(v, v)),
    ROW(CM_UnmapFile(v)), ROW(CM_RemapFile(v, v)),  // last: they take the mapping the others read
};
// 0, after the start only (before it, a set-up waits for its file): a valid
// file and ID with null pointers.
constexpr int32_t kValues[] = {-1, INT_MIN, INT_MAX, 3290, 0};

TEST(BadArguments, NoExportedFunctionCrashesOrHangs) {
    cmtest::TempRoot root;
    cmtest::resetLibraryState();
    // Row under way: phase * calls + row.
    auto* current = static_cast<volatile int*>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(current, MAP_FAILED);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        for (int phase = 0; phase < 2; ++phase) {
            if (phase == 1 && CM_init(1) != 0) _exit(2);
            for (int32_t v : kValues)
                for (int r = 0; (v != 0 || phase == 1) && r < static_cast<int>(std::size(kCalls)); ++r) {
                    *current = phase * 1000 + r;
                    kCalls[r].call(v);
                }
        }
        _exit(0);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    const int r = *current % 1000;
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0)
        << (*current >= 1000 ? "after" : "before") << " start, " << kCalls[r].text << ": status " << st;
    munmap(const_cast<int*>(current), sizeof(int));
    cmtest::resetLibraryState();
}

}  // namespace
