// Defaults: their caller form, whole files rewritten from them, and records
// reset by defaults group.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "catalogue/catalogue.h"
#include "log/log.h"
#include "platform/paths.h"
#include "storage/byte_order.h"
#include "storage/defaults.h"
#include "storage/file_state.h"
#include "storage/open_map.h"
#include "storage/record.h"
#include "support/test_support.h"

using namespace cm::storage;
using cm::catalogue::entry;

namespace {

constexpr int kRed = 7;  // groups 2 and 3; octets, a dword, words, IP addresses

uint32_t expectedOffset(int i, int rel) {
    uint32_t off = 4;
    for (int r = 0; r < rel; ++r) off += entry(i, r).wDataSize + 4;
    return off;
}

class DefaultRecords : public ::testing::Test {
protected:
    void SetUp() override {
        cmtest::resetLibraryState();
        cm::paths::setRoot(root.dir());
    }
    void TearDown() override { cmtest::resetLibraryState(); }
    std::string path() const { return cm::paths::dataFile(kRed); }
    std::string contents() const { return cmtest::readFile(path()); }
    void poke(uint32_t offset, const std::string& bytes) {
        ASSERT_EQ(pwrite(fdRead[kRed], bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
    }
    void openDefaulted() {
        ASSERT_EQ(openOrCreateFile(kRed), 1);
        ASSERT_EQ(writeDefaultData(kRed, true, false), 0);
    }
    // Whether record `rel` holds its default, compared in caller form.
    bool holdsDefault(int rel) {
        uint8_t value[32] = {}, dflt[32] = {};
        EXPECT_EQ(readDataItem(kRed, rel, value), 0);
        EXPECT_EQ(getDefaultData(kRed, rel, dflt), 0);
        return std::memcmp(value, dflt, sizeof value) == 0;
    }

    cmtest::TempRoot root;
    cmtest::CaptureSink sink;
    cmtest::FastEnv env;
};

TEST_F(DefaultRecords, WholeFileIsRewrittenInPlaceAndCut) {
    cmtest::writeFile(path(), std::string(150, '\x5A'));
    ASSERT_EQ(openOrCreateFile(kRed), 0);
    bBadFile[kRed] = 1;
    ASSERT_EQ(writeDefaultData(kRed, true, true), 0);

    const std::string f = contents();
    ASSERT_EQ(f.size(), 99u);
    EXPECT_EQ(f.substr(0, 4), std::string("\x00\x00\x12\x34", 4));
    for (int r = 0; r < 10; ++r) {
        const uint32_t off = expectedOffset(kRed, r);
        EXPECT_EQ(entry(kRed, r).recordOffset(), off);
        EXPECT_EQ(loadBe16(&f[off]), r);
        EXPECT_EQ(loadBe16(&f[off + 2]), entry(kRed, r).wDataSize);
    }
    EXPECT_EQ(f.substr(9 + 4, 4), std::string("\x00\x00\x00\x05", 4));  // RED_LOG_FILTER 5
    EXPECT_EQ(static_cast<uint8_t>(f[22 + 4]), 100);                    // RED_GW_PRIORITY
    EXPECT_EQ(loadBe16(&f[39 + 4]), 7710);                              // RED_GW_PORT
    EXPECT_EQ(f.substr(45 + 4, 20), std::string(20, '\0'));             // no address
    EXPECT_EQ(bBadFile[kRed], 0);
    EXPECT_EQ(dwLenActualFile[kRed], 99u);
    EXPECT_EQ(dwLenMappedFile[kRed], 99u);
    ASSERT_NE(pPrevData[kRed], nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(pPrevData[kRed]), 99), f);
}

TEST_F(DefaultRecords, DefaultsAreInTheCallersForm) {
    // File 0 is not open: the default is still filled in, but the result is -1.
    uint8_t pw[130];
    std::memset(pw, 0xFF, sizeof pw);
    EXPECT_EQ(getDefaultData(0, 196, pw), -1);
    EXPECT_TRUE(sink.contains("Invalid File descriptor for file no. 0\n"));
    EXPECT_EQ(std::memcmp(pw, std::string(130, '\0').data(), 130), 0);

    openDefaulted();
    uint8_t o = 0;
    uint16_t w = 0;
    uint32_t d = 0;
    EXPECT_EQ(getDefaultData(kRed, 3, &o), 0);
    EXPECT_EQ(getDefaultData(kRed, 4, &w), 0);
    EXPECT_EQ(getDefaultData(kRed, 1, &d), 0);
    EXPECT_EQ(o, 100);
    EXPECT_EQ(w, 1000);
    EXPECT_EQ(d, 5u);
    EXPECT_EQ(getDataItemDefaultValue(3142, &w), 0);
    EXPECT_EQ(w, 7710);
}

TEST_F(DefaultRecords, ItemsAtOrAboveTheLevelAreReset) {
    openDefaulted();
    const std::string pristine = contents();
    const uint8_t o = 9;
    const uint16_t w = 9;
    const uint32_t d = 9;
    const uint8_t ip[20] = {0, 2, 0, 0, 192, 0, 2, 7};
    for (int r = 0; r < 10; ++r) {
        const void* v = nullptr;
        switch (entry(kRed, r).ucDataType) {
        case DT_OCTET: v = &o; break;
        case DT_WORD: v = &w; break;
        case DT_DWORD: v = &d; break;
        default: v = ip; break;
        }
        ASSERT_EQ(writeDataItem(kRed, r, v, false), 1) << r;
    }
    poke(2, "\xAB\xCD");

    EXPECT_EQ(writeDefaultDataItems(kRed, 3), 0);
    for (int r = 0; r < 10; ++r) EXPECT_EQ(holdsDefault(r), entry(kRed, r).ucAttrib >= 3) << r;
    EXPECT_EQ(contents().substr(2, 2), "\x12\x34");

    // Nothing left to change: no record and not the CRC word is written.
    poke(2, "\xAB\xCD");
    const std::string before = contents();
    EXPECT_EQ(writeDefaultDataItems(kRed, 3), 0);
    EXPECT_EQ(contents(), before);

    EXPECT_EQ(writeDefaultDataItems(kRed, 0), 0);
    EXPECT_EQ(contents(), pristine);
    ASSERT_EQ(pthread_mutex_trylock(&mtxFile[kRed]), 0);
    pthread_mutex_unlock(&mtxFile[kRed]);
}

// Under a file-size limit of 60 bytes the records from offset 45 on cannot
// be written: only they are marked missing, the rest is still rewritten.
TEST_F(DefaultRecords, AFailedRecordIsMarkedAndTheRestWritten) {
    openDefaulted();
    poke(39 + 4, "\xFF\xFF");  // RED_GW_PORT, to be restored
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit limit{60, 60};
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
        int bad = 0;
        if (writeDefaultData(kRed, true, false) != -1) bad |= 1;
        if (bBadFile[kRed] != 1) bad |= 2;
        for (int r = 0; r < 10; ++r)
            if (entry(kRed, r).recordOffset() != (r < 7 ? expectedOffset(kRed, r) : cm::catalogue::kNoRecord)) bad |= 4;
        if (!sink.contains("**ERROR: CM_WriteDefaultData, PID=" + std::to_string(getpid()) + ". File '" + path() +
                           "' - Failed to write config Data Item 3143 (rel 7) >>>"))
            bad |= 8;
        uint16_t port = 0;
        if (readDataItem(kRed, 6, &port) != 0 || port != 7710) bad |= 16;
        _exit(bad);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
