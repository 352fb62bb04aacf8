// File set-up: creation, the record-by-record check, and what the master
// repairs while other processes only flag.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "catalogue/catalogue.h"
#include "lifecycle/state.h"
#include "platform/paths.h"
#include "storage/byte_order.h"
#include "storage/file_state.h"
#include "storage/open_map.h"
#include "storage/record.h"
#include "storage/setup.h"
#include "support/test_support.h"

using namespace cm::storage;

namespace {

constexpr int kRed = 7;  // 10 variables, IDs 3136..3145

class FileSetUp : public ::testing::Test {
protected:
    void SetUp() override { cmtest::resetLibraryState(); }
    void TearDown() override { cmtest::resetLibraryState(); }

    std::string path() const { return cm::paths::dataFile(kRed); }
    // A good file, made by a master's set-up and then closed again.
    std::string makeGoodFile() {
        cm::lifecycle::bCMmaster = 1;
        EXPECT_EQ(setUpConfigFile(kRed), 0);
        cmtest::resetLibraryState();
        cm::paths::setRoot(root.dir());
        return cmtest::readFile(path());
    }
    int setUpAs(bool master) {
        cm::lifecycle::bCMmaster = master;
        return setUpConfigFile(kRed);
    }
    uint32_t offsetOf(int rel) const {
        uint32_t off = 4;
        for (int r = 0; r < rel; ++r) off += cm::catalogue::entry(kRed, r).wDataSize + 4;
        return off;
    }
    cmtest::TempRoot root;
    cmtest::CaptureSink sink;
    cmtest::FastEnv env;
};

TEST_F(FileSetUp, MasterCreatesAMissingFileFromDefaults) {
    const std::string bytes = makeGoodFile();
    ASSERT_EQ(bytes.size(), correctLength(kRed));
    EXPECT_EQ(bytes.substr(0, 4), std::string("\x00\x00\x12\x34", 4));
    struct stat st{};
    ASSERT_EQ(stat(path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    // Every record sits where the catalogue puts it, with its ID and length.
    for (int r = 0; r < 10; ++r) {
        EXPECT_EQ(loadBe16(bytes.data() + offsetOf(r)), r);
        EXPECT_EQ(loadBe16(bytes.data() + offsetOf(r) + 2), cm::catalogue::entry(kRed, r).wDataSize);
    }
    // RED_GW_PORT (rel 6) defaults to 7710, big-endian in the file.
    EXPECT_EQ(loadBe16(bytes.data() + offsetOf(6) + 4), 7710);
}

TEST_F(FileSetUp, MasterRewritesAFileWithAWrongRecordLength) {
    std::string bytes = makeGoodFile();
    storeBe16(&bytes[offsetOf(4) + 2], 9);
    bytes[offsetOf(3) + 4] = 0x55;  // a changed value the rewrite must discard
    cmtest::writeFile(path(), bytes);
    EXPECT_EQ(setUpAs(true), kWrongLength);
    EXPECT_TRUE(sink.contains("has wrong length=9 (expected 2)\n"));
    EXPECT_TRUE(sink.contains("set to defaults for all its CM vars (ID=3136 to 3145), to fix data errors.\n"));
    EXPECT_EQ(bBadFile[kRed], 0);
    uint8_t priority = 0;
    ASSERT_EQ(readDataItem(kRed, 3, &priority), 0);
    EXPECT_EQ(priority, 100);
    for (int r = 0; r < 10; ++r) EXPECT_EQ(cm::catalogue::entry(kRed, r).recordOffset(), offsetOf(r));
}

TEST_F(FileSetUp, ExtraBytesAreCutByTheMasterAndOnlyFlaggedByOthers) {
    const std::string good = makeGoodFile();
    cmtest::writeFile(path(), good + std::string(10, 'x'));
    EXPECT_EQ(setUpAs(false), kFileGood);
    EXPECT_TRUE(sink.contains("has 10 extra bytes at end, after its 10 items\n"));
    EXPECT_EQ(cmtest::readFile(path()).size(), good.size() + 10);
    EXPECT_EQ(dwLenMappedFile[kRed], good.size());

    cmtest::resetLibraryState();
    cm::paths::setRoot(root.dir());
    EXPECT_EQ(setUpAs(true), kFileGood);
    EXPECT_TRUE(sink.contains("had 10 extra bytes at end, after its 10 items : removed the extra bytes\n"));
    EXPECT_EQ(cmtest::readFile(path()), good);
}

TEST_F(FileSetUp, NonMasterKeepsTheGoodRecordsOfATruncatedFile) {
    const std::string good = makeGoodFile();
    cmtest::writeFile(path(), good.substr(0, offsetOf(7) + 3));  // record 7 cut, 8 and 9 gone
    EXPECT_EQ(setUpAs(false), kRecordsMissing);
    EXPECT_TRUE(sink.contains("has truncated record of 3 bytes at end, after 7 items (expected 10 items) : CM vars ID=3143 to 3145 missing\n"));
    EXPECT_EQ(bBadFile[kRed], 1);
    uint8_t v[32];
    EXPECT_EQ(readDataItem(kRed, 6, v), 0);
    EXPECT_EQ(readDataItem(kRed, 7, v), -1);
    EXPECT_TRUE(sink.contains("bad or missing record for CM var ID=3143 (rel ID=7)"));

    cmtest::resetLibraryState();
    cm::paths::setRoot(root.dir());
    cmtest::writeFile(path(), good.substr(0, offsetOf(8)));
    EXPECT_EQ(setUpAs(false), kRecordsMissing);
    EXPECT_TRUE(sink.contains("only has 8 items (expected 10 items) : CM vars ID=3144 to 3145 missing\n"));
}

TEST_F(FileSetUp, HeaderAndRecordIdentityFaults) {
    std::string bytes = makeGoodFile();
    std::string badVersion = bytes;
    badVersion[1] = 7;
    cmtest::writeFile(path(), badVersion);
    EXPECT_EQ(setUpAs(false), kBadHeader);
    EXPECT_TRUE(sink.contains("Version mismatch for CM data file [7] '" + path() + "'. File version = 7, code expects 0\n"));
    EXPECT_EQ(cmtest::readFile(path()), badVersion) << "a non-master never repairs";

    cmtest::resetLibraryState();
    cm::paths::setRoot(root.dir());
    std::string badId = bytes;
    storeBe16(&badId[offsetOf(2)], 5);
    badId[2] = 0x77;  // the CRC word is never checked
    cmtest::writeFile(path(), badId);
    EXPECT_EQ(setUpAs(false), kWrongRelativeId);
    EXPECT_TRUE(sink.contains("record at offset " + std::to_string(offsetOf(2)) + "  has wrong relative ID=5 (expected 2)\n"));
    EXPECT_EQ(cm::catalogue::entry(kRed, 1).recordOffset(), offsetOf(1)) << "records before the fault stay usable";
    EXPECT_EQ(cm::catalogue::entry(kRed, 2).recordOffset(), cm::catalogue::kNoRecord);
}

TEST_F(FileSetUp, EmptyFileAndAlreadyOpenFile) {
    makeGoodFile();
    cmtest::writeFile(path(), "");
    cm::lifecycle::bCMmaster = 0;
    ASSERT_EQ(openOrCreateFile(kRed), 0);
    EXPECT_EQ(initialiseDataStruct(kRed, true, true), kFileEmptyOrShort);
    EXPECT_EQ(inotifywd[kRed], -1) << "no watch for an empty file";
    EXPECT_EQ(bBadFile[kRed], 1);

    // The master re-checks an open file even though it says it won't.
    cm::lifecycle::bCMmaster = 1;
    EXPECT_EQ(setUpConfigFile(kRed), kFileEmptyOrShort);
    EXPECT_TRUE(sink.contains("is already open (FD="));
    EXPECT_EQ(cmtest::readFile(path()).size(), correctLength(kRed));
    EXPECT_EQ(bBadFile[kRed], 0);
}

}  // namespace
