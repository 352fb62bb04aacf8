// The interest registry and the CMSIF changed-variable list, in one process.
#include "notify/var_list.h"
#include "support/test_support.h"

namespace {

std::string g_calls;  // "A7 B7 ..." in call order

int record(char who, int32_t id) {
    g_calls += who + std::to_string(id) + " ";
    return 0;
}
int cbA(int32_t id) { return record('A', id); }
int cbB(int32_t id) { return record('B', id); }
int cmsif(int32_t id) { return record('C', id); }

class Registry : public cmtest::LibraryTest {
protected:
    void SetUp() override { LibraryTest::SetUp(), g_calls.clear(); }
};

TEST_F(Registry, RefusalsPairTheirMessagesAsCallersExpect) {
    EXPECT_EQ(CM_Register_Interest(5, cbA), CM_ERR_INVALID);
    EXPECT_TRUE(sink.contains("Bad CM var ID=5 for function 0x"));
    EXPECT_EQ(CM_Register_Interest(3290, cbA), CM_ERR_NOT_STARTED_OR_ID);
    EXPECT_TRUE(sink.contains("CM lib not initialised, for CM var ID=3290 function 0x"));
    EXPECT_EQ(CM_Unregister_Interest(5, cbA), CM_ERR_INVALID);
    cm::process::ucCMInitialised = cm::process::kStarted;
    EXPECT_EQ(CM_Register_Interest(3290, cbA), CM_ERR_NOT_STARTED_OR_ID);
    EXPECT_EQ(CM_Unregister_Interest(3290, cbA), CM_ERR_NOT_STARTED_OR_ID);
}

TEST_F(Registry, CallbacksRunInRegistrationOrderAndUnregisterRelinks) {
    cm::process::ucCMInitialised = cm::process::kStarted;
    ASSERT_EQ(CM_Register_Interest(7, cbA), 0);
    ASSERT_EQ(CM_Register_Interest(7, cbB), 0);
    ASSERT_EQ(CM_Register_Interest(8, cbA), 0);  // one function, many variables
    EXPECT_EQ(CM_Register_Interest(7, cbA), CM_ERR_REPEATED);
    CM_Notify(7);
    EXPECT_EQ(g_calls, "A7 B7 ");
    ASSERT_EQ(CM_Unregister_Interest(7, cbA), 0);
    EXPECT_EQ(CM_Unregister_Interest(7, cbA), 0);
    EXPECT_TRUE(sink.contains("VarId 7 not registered, ignore request\n"));
    g_calls.clear();
    CM_NotifyRange(6, 8);
    CM_NotifyRange(10, 9);
    EXPECT_EQ(g_calls, "B7 A8 ");
    Applog_default(0x107);
    CM_Notify(12);
    EXPECT_TRUE(sink.contains("CM - Notified 0 tasks of the change to variable with ID 12.\n"));
}

// A started library (the list reads CM_FLAG, never reported, so the watch thread
// calls no recorded callback); the CMSIF callback is installed once per process.
class CmsifList : public cmtest::LibraryTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(CM_Register_CMSIF_Var_Changed_CB(cmsif), 0);
        ASSERT_EQ(CM_Init_Var_List(), 0);
    }
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(CM_init(1), 0);
        g_calls.clear();
        CM_Clear_Var_List();
        cm::notify::setFullProfile(false);
    }
    void setFlag(uint8_t mode) { ASSERT_GE(cm::storage::putDataItem(CM_FLAG, &mode), 0); }
    std::string walk() {
        uint8_t copy[CM_VAR_LIST_BYTES];
        EXPECT_EQ(CM_Get_Var_List(copy), 0);
        std::string ids;
        for (int32_t id = CM_Get_Next_Variable(copy, 3290); id != 3290; id = CM_Get_Next_Variable(copy, id))
            ids += std::to_string(id) + " ";
        return ids;
    }
};

TEST_F(CmsifList, ModesDecideBetweenTellingNotingAndNothing) {
    EXPECT_EQ(CM_Register_CMSIF_Var_Changed_CB(cbA), CM_ERR_NO_FILE);
    EXPECT_EQ(CM_Init_Var_List(), CM_ERR_NO_FILE);

    setFlag(CM_FLAG_IDLE);  // reportable changes are told, others never
    CM_Notify(NW_TRACE_ENABLE);
    CM_Notify(CM_TEST123);
    CM_NotifyRange(UNIT_NAME, UNIT_LOCATION);
    CM_NotifyRange(3288, 3290);  // the range ends at the last ID
    EXPECT_EQ(g_calls, "C45 C3254 C3288 ");
    EXPECT_FALSE(sink.contains("Invalid CM variable ID"));
    EXPECT_EQ(walk(), "");

    g_calls.clear();
    setFlag(CM_FLAG_BATCH_CHANGE);  // only noted, walked in ID order
    for (int32_t id : {VLAN_MODE, NW_TRACE_ENABLE, CM_TEST123, VLAN_MODE}) CM_Notify(id);
    EXPECT_EQ(g_calls, "");
    EXPECT_EQ(walk(), "45 3285 ");

    ASSERT_EQ(CM_Start_Prof_Download(0), 0);  // a new list; noted variables are skipped...
    ASSERT_EQ(CM_Note_Var_Unchanged(UNIT_NAME), 0);
    CM_Notify(UNIT_NAME);
    CM_Notify(VLAN_MODE);
    EXPECT_EQ(g_calls, "C3285 ");
    ASSERT_EQ(CM_Start_Prof_Download(1), 0);  // ...and a full profile tells nothing
    CM_Notify(VLAN_MODE);
    EXPECT_EQ(g_calls, "C3285 ");
    EXPECT_EQ(CM_Note_Var_Unchanged(3290), CM_ERR_INVALID);
}

TEST_F(CmsifList, WalkEdgesOfACopy) {
    uint8_t copy[CM_VAR_LIST_BYTES] = {};
    EXPECT_EQ(CM_Get_Next_Variable(copy, 3290), 3290);
    copy[0] = 1;
    EXPECT_EQ(CM_Get_Next_Variable(copy, 3290), 0);
    EXPECT_EQ(CM_Get_Next_Variable(copy, 0), 3290);
    EXPECT_EQ(CM_Get_Next_Variable(copy, 3289), 3290);
}

}  // namespace
