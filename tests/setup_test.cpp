// File set-up: creation, the record-by-record check, and what the master
// repairs while other processes only flag.
#include <sys/resource.h>

#include "platform/byte_order.h"
#include "setup/setup.h"
#include "support/test_support.h"

using namespace cm::storage;
using cm::platform::storeBe16;
using namespace cm::setup;

namespace {

constexpr int kRed = 7;  // 10 variables, IDs 3136..3145

class FileSetUp : public ::testing::Test {
protected:
    // A good file, made by a master's set-up and closed again.
    void SetUp() override {
        cmtest::resetLibraryState();
        ASSERT_EQ(setUpAs(true), 0);
        good = cmtest::readFile(path());
        reset();
    }
    void TearDown() override { cmtest::resetLibraryState(); }
    void reset() {
        cmtest::resetLibraryState();
        cm::paths::setRoot(root.dir());
    }
    std::string path() const { return cm::storage::pathOf(kRed); }
    int setUpAs(bool master) {
        cm::process::bCMmaster = master;
        return setUpConfigFile(kRed);
    }
    static uint32_t offsetOf(int rel) { return cmtest::recordOffset(3136 + rel); }
    static uint32_t offsetIn(int rel) { return cm::catalogue::entry(kRed, rel).recordOffset(); }
    cmtest::TempRoot root;
    cmtest::CaptureSink sink;
    cmtest::FastEnv env;
    std::string good;
};

TEST_F(FileSetUp, MasterRewritesADamagedFileFromDefaults) {
    ASSERT_EQ(good.size(), correctLength(kRed));
    std::string bytes = good;
    storeBe16(&bytes[offsetOf(4) + 2], 9);
    bytes[offsetOf(3) + 4] = 0x55;  // a changed value the rewrite must discard
    cmtest::writeFile(path(), bytes);
    EXPECT_EQ(setUpAs(true), kWrongLength);  // the check result, although repaired
    EXPECT_TRUE(sink.contains("has wrong length=9 (expected 2)\n"));
    EXPECT_TRUE(sink.contains("set to defaults for all its CM vars (ID=3136 to 3145), to fix data errors.\n"));
    EXPECT_EQ(bBadFile[kRed], 0);
    EXPECT_EQ(cmtest::readFile(path()), good);
    for (int r = 0; r < 10; ++r) EXPECT_EQ(offsetIn(r), offsetOf(r));
    // A copy that cannot be written whole never replaces the one kept before.
    const std::string copy = path() + ".damaged";
    ASSERT_EQ(cmtest::readFile(copy), bytes);
    cmtest::writeFile(path(), bytes + std::string(100, 'x'));
    reset();
    EXPECT_EQ(cmtest::inChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit small{good.size() + 50, good.size() + 50};
        return setrlimit(RLIMIT_FSIZE, &small) != 0 ? 1 : setUpAs(true) != kWrongLength ? 2 : 0;
    }), cmtest::kChildOk);
    EXPECT_EQ(cmtest::readFile(copy), bytes);
    EXPECT_EQ(cmtest::readFile(path()), good);
    // Nor is one kept whose file cannot be made.
    ASSERT_EQ(unlink(copy.c_str()) | mkdir((copy + ".new").c_str(), 0700), 0);
    cmtest::writeFile(path(), bytes);
    reset();
    EXPECT_EQ(setUpAs(true), kWrongLength);
    EXPECT_FALSE(std::filesystem::exists(copy));
}

TEST_F(FileSetUp, ExtraBytesAreCutByTheMasterAndOnlyFlaggedByOthers) {
    cmtest::writeFile(path(), good + std::string(10, 'x'));
    EXPECT_EQ(setUpAs(false), kFileGood);
    EXPECT_TRUE(sink.contains("has 10 extra bytes at end, after its 10 items\n"));
    EXPECT_EQ(cmtest::readFile(path()).size(), good.size() + 10);
    EXPECT_EQ(dwLenMappedFile[kRed], good.size());
    reset();
    EXPECT_EQ(setUpAs(true), kFileGood);
    EXPECT_TRUE(sink.contains("had 10 extra bytes at end, after its 10 items : removed the extra bytes\n"));
    EXPECT_EQ(cmtest::readFile(path()), good);
}

TEST_F(FileSetUp, NonMasterFlagsFaultsKeepsEarlierRecordsAndRepairsNothing) {
    std::string badVersion = good, badId = good;
    badVersion[1] = 7;
    storeBe16(&badId[offsetOf(2)], 5);
    badId[2] = 0x77;  // the CRC word is never checked
    const struct {
        std::string bytes;
        int result;
        int firstBad;  // records before it keep their offsets
        std::string message;
    } cases[] = {
        {good.substr(0, offsetOf(7) + 3), kRecordsMissing, 7,
         "has truncated record of 3 bytes at end, after 7 items (expected 10 items) : CM vars ID=3143 to 3145 missing\n"},
        {good.substr(0, offsetOf(8)), kRecordsMissing, 8, "only has 8 items (expected 10 items) : CM vars ID=3144 to 3145 missing\n"},
        {badVersion, kBadHeader, 0, "Version mismatch for CM data file [7] '" + path() + "'. File version = 7, code expects 0\n"},
        {badId, kWrongRelativeId, 2, "record at offset " + std::to_string(offsetOf(2)) + "  has wrong relative ID=5 (expected 2)\n"},
    };
    for (const auto& c : cases) {
        reset();
        sink.clear();
        cmtest::writeFile(path(), c.bytes);
        EXPECT_EQ(setUpAs(false), c.result) << c.message;
        EXPECT_TRUE(sink.contains(c.message)) << c.message;
        EXPECT_EQ(bBadFile[kRed], 1);
        EXPECT_EQ(cmtest::readFile(path()), c.bytes) << "a non-master never repairs";
        for (int r = 0; r < 10; ++r) EXPECT_EQ(offsetIn(r), r < c.firstBad ? offsetOf(r) : cm::catalogue::kNoRecord);
    }
    uint8_t v[32];
    EXPECT_EQ(readDataItem(kRed, 1, v), 0);
    EXPECT_EQ(readDataItem(kRed, 2, v), -1);
    EXPECT_EQ(CM_GetNotifiedDataItem(3138, v), -1);  // the private copy has no such record either
    EXPECT_TRUE(sink.contains("bad or missing record for CM var ID=3138 (rel ID=2)"));
}

TEST_F(FileSetUp, EmptyFileAndAlreadyOpenFile) {
    cmtest::writeFile(path(), "");
    ASSERT_EQ(openOrCreateFile(kRed), 0);
    EXPECT_EQ(initialiseDataStruct(kRed, true, true), kFileEmptyOrShort);
    EXPECT_EQ(inotifywd[kRed], -1) << "no watch for an empty file";
    EXPECT_EQ(bBadFile[kRed], 1);

    // The master re-checks an open file even though it says it won't.
    EXPECT_EQ(setUpAs(true), kFileEmptyOrShort);
    EXPECT_TRUE(sink.contains("is already open (FD="));
    EXPECT_EQ(cmtest::readFile(path()), good);
    EXPECT_EQ(bBadFile[kRed], 0);
}

// In a process without standard input a data file can be descriptor 0.
TEST_F(FileSetUp, DescriptorZeroIsAnOpenFile) {
    EXPECT_EQ(cmtest::inChild([&] {
        return close(0) != 0 ? 1 : setUpAs(true) != kFileGood ? 2 : fdRead[kRed] != 0 ? 3
             : CM_LockFile(kRed, 0, 0) != 0 || CM_WriteDataItem(kRed, 0, good.data() + offsetOf(0) + 4, 0) < 0 ||
                       CM_UnLockFile(kRed, 0, 0) != 0 ? 4 : 0;
    }), cmtest::kChildOk);
}

// The C entry point passes its flags through: a private copy only when asked for.
TEST_F(FileSetUp, PrivateCopyOnlyWhenAskedFor) {
    ASSERT_EQ(openOrCreateFile(kRed), 0);
    EXPECT_EQ(CM_InitialiseDataStruct(kRed, 0, 0), kFileGood);
    EXPECT_EQ(pPrevData[kRed], nullptr);
    EXPECT_EQ(CM_InitialiseDataStruct(kRed, 1, 0), kFileGood);
    ASSERT_NE(pPrevData[kRed], nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(pPrevData[kRed]), good.size()), good);
    EXPECT_EQ(inotifywd[kRed], -1);
}

}  // namespace
