// Batch changes and profile downloads, with this test process playing the
// management-interface process: it owns the queues (named under its private
// root, so parallel tests never share them) and checks every message byte.
#include <mqueue.h>
#include <pthread.h>

#include <ctime>

#include "support/test_support.h"

namespace {

constexpr mqd_t kNone = static_cast<mqd_t>(-1);

// Receives one message, waiting at most ten seconds.
std::string receive(mqd_t q, unsigned* prio = nullptr) {
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 10;
    char buf[CM_BATCH_MSG_SIZE];
    const ssize_t n = mq_timedreceive(q, buf, sizeof buf, prio, &deadline);
    return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

uint8_t cmFlag() {
    uint8_t v = 0xFF;
    CM_Get_Variable(CM_FLAG, &v);
    return v;
}

class Batch : public ::testing::Test {
protected:
    void SetUp() override {
        cmtest::resetLibraryState();
        ASSERT_EQ(CM_init(1), 0);
    }
    void TearDown() override {
        for (const auto& name : created_) mq_unlink(cm::platform::queueName(name).c_str());
        cmtest::resetLibraryState();
    }
    int secondSleeps() const { return env.sleepsOf(1s); }
    // Opens (creating) a queue as the management-interface process does.
    mqd_t own(const std::string& deviceName) {
        created_.push_back(deviceName);
        mq_attr attr{};
        attr.mq_maxmsg = 10, attr.mq_msgsize = CM_BATCH_MSG_SIZE;
        return mq_open(cm::platform::queueName(deviceName).c_str(), O_RDONLY | O_CREAT, 0600, &attr);
    }
    cmtest::TempRoot root;
    cmtest::CaptureSink log;
    cmtest::FastEnv env;
    std::vector<std::string> created_;
};

TEST_F(Batch, ElevenBatchesAnnouncedAfterWaitingForTheInputQueue) {
    constexpr int kBatches = 11;
    std::vector<std::string> starts, ends, files;
    std::thread cmsif([&] {
        // Not up yet: the library must wait, a second at a time.
        if (!cmtest::waitFor([&] { return secondSleeps() >= 3; })) return;
        const mqd_t input = own("/CMSIF_InputMessages");
        for (int i = 0; i < kBatches; ++i) {
            const std::string start = receive(input);
            starts.push_back(start);
            if (start.size() != CM_BATCH_MSG_SIZE) return;
            const std::string base(start.c_str() + 12);
            const mqd_t endQ = own(base + ".ChangesCompleteQ"), filesQ = own(base + ".XmlFileNamesQ");
            unsigned prio = 0;
            files.push_back(receive(filesQ));
            ends.push_back(receive(endQ, &prio));
            if (prio != 1) ends.back() = "wrong priority";
            mq_close(endQ);
            mq_close(filesQ);
        }
        mq_close(input);
    });
    for (int i = 0; i < kBatches; ++i) {
        mqd_t endQ = 0, filesQ = 0;
        ASSERT_EQ(CM_Start_Batch_Data_Change(&endQ, &filesQ), 0);
        EXPECT_EQ(cmFlag(), CM_FLAG_BATCH_CHANGE);
        const std::string name = "batch" + std::to_string(i);
        ASSERT_EQ(mq_send(filesQ, name.c_str(), name.size(), 0), 0);
        EXPECT_EQ(CM_End_Batch_Data_Change(&endQ, &filesQ), 0);
        EXPECT_EQ(endQ, kNone);
        EXPECT_EQ(filesQ, kNone);
    }
    cmsif.join();
    EXPECT_GE(secondSleeps(), 3);
    ASSERT_EQ(starts.size(), static_cast<size_t>(kBatches));
    const std::string thread = std::to_string(static_cast<unsigned long>(pthread_self()));
    for (int i = 0; i < kBatches; ++i) {
        std::string expected(CM_BATCH_MSG_SIZE, '\0');
        expected[11] = CM_BATCH_MSG_START;
        // Counters below 10 are padded with a blank.
        const std::string base = "/CMSIFMQ" + thread + "." + (i < 10 ? " " : "") + std::to_string(i);
        expected.replace(12, base.size(), base);
        EXPECT_EQ(starts[i], expected) << "batch " << i;
        EXPECT_EQ(files[i], "batch" + std::to_string(i));
        EXPECT_EQ(ends[i], std::string(CM_BATCH_MSG_SIZE, '\0'));
    }
}

TEST_F(Batch, EndWithoutQueuesReportsBothAndSendsNothing) {
    mqd_t endQ = kNone, filesQ = kNone;
    EXPECT_EQ(CM_End_Batch_Data_Change(&endQ, &filesQ), -13);
    EXPECT_TRUE(log.contains("Invalid (files) msg Q id (-1)\n"));
    EXPECT_TRUE(log.contains("Invalid (End) msg Q id (-1)\n"));
}

TEST_F(Batch, ProfileDownloadHoldsBackOrdinarySets) {
    const uint8_t v33 = 33, v44 = 44;
    // Without the management interface's list the clear fails and counts.
    EXPECT_EQ(CM_Start_Prof_Download(1), -21);
    ASSERT_EQ(CM_Init_Var_List(), 0);
    ASSERT_EQ(CM_Note_Var_Unchanged(UNIT_NAME), 0);
    EXPECT_EQ(CM_Start_Prof_Download(0), 0);
    EXPECT_EQ(cmFlag(), CM_FLAG_PROFILE_DOWNLOAD);
    uint8_t list[CM_VAR_LIST_BYTES];
    ASSERT_EQ(CM_Get_Var_List(list), 0);
    EXPECT_EQ(CM_Get_Next_Variable(list, CM_VAR_ID_END), CM_VAR_ID_END);

    uint8_t got = 0;
    EXPECT_EQ(CM_Set_Variable(CMS_LINK_INACTIVITY, &v33), 0);
    ASSERT_EQ(CM_Get_Variable(CMS_LINK_INACTIVITY, &got), 0);
    EXPECT_NE(got, v33);
    EXPECT_TRUE(log.contains("CM var ID=" + std::to_string(CMS_LINK_INACTIVITY) + " not set as profile update from NCMS in progress"));
    EXPECT_EQ(CM_Set_Variable_CMI(CMS_LINK_INACTIVITY, &v33, 0), 0);

    EXPECT_EQ(CM_End_Prof_Download(), 0);
    EXPECT_EQ(cmFlag(), CM_FLAG_IDLE);
    EXPECT_EQ(CM_Set_Variable(CMS_LINK_INACTIVITY, &v44), 0);
    ASSERT_EQ(CM_Get_Variable(CMS_LINK_INACTIVITY, &got), 0);
    EXPECT_EQ(got, v44);
}

}  // namespace
