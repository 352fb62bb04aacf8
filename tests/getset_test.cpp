// Get and set through the C API: the checked get's repair, the MAC cache, the set mutex after a password failure.
#include "getset/mac_cache.h"
#include "support/test_support.h"

namespace {

class GetSet : public cmtest::LibraryTest {};

TEST_F(GetSet, CodesAndLoggedFailures) {
    ASSERT_EQ(CM_init(1), 0);
    uint32_t v = 0;
    for (int32_t id : {3290, -1, 210}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(CM_Get_Variable(id, &v), CM_ERR_INVALID);  // the read fails before the ID test
        EXPECT_EQ(CM_Get_Variable_Default_Value(id, &v), CM_ERR_INVALID);
        EXPECT_EQ(CM_Set_Variable(id, &v), CM_ERR_INVALID);
        EXPECT_EQ(CM_Set_Variable_CMI_Log_Error(id, &v, 1), CM_ERR_INVALID);
    }
    EXPECT_TRUE(sink.contains("**ERROR:CM_Set_Variable_CMI:../src/configparam.c:  Invalid CM variable ID = 210"));
    sink.clear();
    EXPECT_EQ(CM_GetDataItem(3290, &v), -1);
    EXPECT_TRUE(sink.contains("Invalid Var Id of 3290\n"));
}

TEST_F(GetSet, CheckedGetRepairsOutOfRangeNumbers) {
    ASSERT_EQ(CM_init(1), 0);
    uint8_t v = 9;  // VXRTP_CODEC_1: bounds 7..9, default 7
    ASSERT_EQ(CM_Set_Variable(VXRTP_CODEC_1, &v), 0);
    EXPECT_EQ(CM_Get_Variable_Check_Value(VXRTP_CODEC_1, &v), 0);
    EXPECT_EQ(v, 9);
    v = 10;
    ASSERT_EQ(CM_Set_Variable(VXRTP_CODEC_1, &v), 0);
    EXPECT_EQ(CM_Get_Variable_Check_Value(VXRTP_CODEC_1, &v), 1);
    EXPECT_EQ(v, 7);
    ASSERT_EQ(CM_Get_Variable(VXRTP_CODEC_1, &v), 0);
    EXPECT_EQ(v, 7);
    EXPECT_TRUE(sink.contains("**ERROR: CM var VXRTP_CODEC_1 (ID=924) bad value = 10 changed to default = 7\n"));
    uint16_t port = 0;
    EXPECT_EQ(CM_Get_Variable_Default_Value(CURRENT_CMS_PORT_ADDRESS, &port), 0);
    EXPECT_EQ(port, 9190);

    // A default outside its own bounds (1..2, default 0) is repaired at every read.
    for (int round = 0; round < 2; ++round) EXPECT_EQ(CM_Get_Variable_Check_Value(CURRENT_FILE_TRANSFER_PROTOCOL, &v), 1);
    EXPECT_EQ(sink.count("CURRENT_FILE_TRANSFER_PROTOCOL (ID=194) bad value = 0 changed to default = 0"), 2);

    // Double words use the long form; texts are never checked or altered.
    uint32_t mask = 5;  // below 0xff000000
    ASSERT_EQ(CM_Set_Variable(CURRENT_IP4_SUBNET_MASK, &mask), 0);
    EXPECT_EQ(CM_Get_Variable_Check_Value(CURRENT_IP4_SUBNET_MASK, &mask), 1);
    EXPECT_TRUE(sink.contains("CURRENT_IP4_SUBNET_MASK (ID=6) bad value = 5 changed to default = 0"));
    char text[300] = "";
    ASSERT_EQ(CM_Set_Variable(UNIT_NAME, "zz"), 0);
    EXPECT_EQ(CM_Get_Variable_Check_Value(UNIT_NAME, text), 0);
    EXPECT_STREQ(text, "zz");
}

TEST_F(GetSet, FirstMacAddressKeepsSixBytesAndTheCache) {
    ASSERT_EQ(CM_init(1), 0);
    const uint8_t mac[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(CM_Set_Variable(MAC1_ADDRESS, mac), 0);
    uint8_t got[8];
    ASSERT_EQ(CM_Get_Variable(MAC1_ADDRESS, got), 0);
    const uint8_t stored[8] = {1, 2, 3, 4, 5, 6, 0, 0};
    EXPECT_EQ(std::memcmp(got, stored, 8), 0);
    EXPECT_EQ(std::memcmp(cm::getset::szMACAddress, stored, 8), 0);
    // A get refreshes the cache with what the file holds.
    const uint8_t other[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    ASSERT_EQ(CM_PutDataItem(MAC1_ADDRESS, other), 1);
    ASSERT_EQ(CM_Get_Variable(MAC1_ADDRESS, got), 0);
    EXPECT_EQ(std::memcmp(cm::getset::szMACAddress, other, 8), 0);
}

TEST_F(GetSet, PasswordFailureLeavesTheSetMutexHeldByTheCaller) {
    ASSERT_EQ(CM_init(1), 0);
    const std::string tooLong(128, 'p');
    ASSERT_EQ(CM_Set_Variable_Log_Error(CURRENT_FILE_TRANSFER_PASSWORD, tooLong.c_str()), CM_ERR_INVALID);
    EXPECT_TRUE(sink.contains("failed to set CM var CURRENT_FILE_TRANSFER_PASSWORD (ID=197)"));  // named
    uint16_t port = 7000;
    EXPECT_EQ(CM_Set_Variable(CURRENT_CMS_PORT_ADDRESS, &port), 0);  // same thread: recursive

    std::atomic<int> result{1};
    port = 7001;
    std::thread other([&] { result = CM_Set_Variable(CURRENT_CMS_PORT_ADDRESS, &port); });
    EXPECT_FALSE(cmtest::waitFor([&] { return result != 1; }, 300ms));  // blocked on the mutex
    pthread_mutex_unlock(&cm::process::mCMMutex);  // the one hold the failure left
    other.join();
    EXPECT_EQ(result, 0);
    uint16_t got = 0;
    ASSERT_EQ(CM_Get_Variable(CURRENT_CMS_PORT_ADDRESS, &got), 0);
    EXPECT_EQ(got, 7001);
}

}  // namespace
