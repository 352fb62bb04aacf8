// Reading and writing single records: the bytes that reach the file, what an
// unchanged value leaves alone, and the records that are refused.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstring>

#include "catalogue/catalogue.h"
#include "log/log.h"
#include "platform/paths.h"
#include "storage/defaults.h"
#include "storage/file_state.h"
#include "storage/open_map.h"
#include "storage/record.h"
#include "support/test_support.h"
#include "values/ipaddr.h"

using namespace cm::storage;

namespace {

constexpr int kSystem = 1;  // version 1: two octet strings, two texts of 22 bytes
constexpr int kRed = 7;     // octets, a dword, words, two IP addresses

class RecordAccess : public ::testing::Test {
protected:
    void SetUp() override {
        cmtest::resetLibraryState();
        cm::paths::setRoot(root.dir());
        cm::log::dwLogFilter = 7;
        for (int i : {kSystem, kRed}) {
            ASSERT_EQ(openOrCreateFile(i), 1);
            ASSERT_EQ(writeDefaultData(i, true, false), 0);
        }
    }
    void TearDown() override { cmtest::resetLibraryState(); }

    // Bytes of file i as spaced hex, e.g. "00 02 12 34".
    static std::string hexAt(int i, uint32_t offset, size_t n) {
        const std::string file = cmtest::readFile(cm::paths::dataFile(i));
        std::string out;
        char b[4];
        for (size_t k = 0; k < n && offset + k < file.size(); ++k) {
            snprintf(b, sizeof b, k ? " %02X" : "%02X", static_cast<uint8_t>(file[offset + k]));
            out += b;
        }
        return out;
    }
    static void poke(int i, uint32_t offset, const std::string& bytes) {
        ASSERT_EQ(pwrite(fdRead[i], bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
    }

    cmtest::TempRoot root;
    cmtest::CaptureSink sink;
    cmtest::FastEnv env;
};

TEST_F(RecordAccess, NumbersAreBigEndianInTheFileAndHostOrderForTheCaller) {
    const uint16_t w = 0x1234;
    const uint32_t d = 0x01020304;
    const uint8_t o = 0xAB;
    EXPECT_EQ(writeDataItem(kRed, 4, &w, true), 1);
    EXPECT_EQ(writeDataItem(kRed, 1, &d, true), 1);
    EXPECT_EQ(writeDataItem(kRed, 3, &o, true), 1);
    EXPECT_EQ(hexAt(kRed, 27, 6), "00 04 00 02 12 34");
    EXPECT_EQ(hexAt(kRed, 9, 8), "00 01 00 04 01 02 03 04");
    EXPECT_EQ(hexAt(kRed, 22, 5), "00 03 00 01 AB");
    uint16_t w2 = 0;
    uint32_t d2 = 0;
    EXPECT_EQ(readDataItem(kRed, 4, &w2), 0);
    EXPECT_EQ(readDataItem(kRed, 1, &d2), 0);
    EXPECT_EQ(w2, 0x1234);
    EXPECT_EQ(d2, 0x01020304u);
}

TEST_F(RecordAccess, OnlyChangedLockedWritesTouchTheCrcWord) {
    poke(kRed, 2, "\xAB\xCD");
    const std::string before = cmtest::readFile(cm::paths::dataFile(kRed));
    uint16_t port = 7710;  // the stored default
    EXPECT_EQ(writeDataItem(kRed, 6, &port, true), 0);
    EXPECT_EQ(cmtest::readFile(cm::paths::dataFile(kRed)), before);

    port = 8000;
    EXPECT_EQ(writeDataItem(kRed, 6, &port, false), 1);
    EXPECT_EQ(hexAt(kRed, 2, 2), "AB CD");
    EXPECT_EQ(hexAt(kRed, 43, 2), "1F 40");
    port = 8001;
    EXPECT_EQ(writeDataItem(kRed, 6, &port, true), 1);
    EXPECT_EQ(hexAt(kRed, 2, 2), "12 34");
}

TEST_F(RecordAccess, TextIsCutToItsSizeAndZeroFilled) {
    EXPECT_EQ(hexAt(kSystem, 0, 4), "00 01 12 34");
    const std::string longText(40, 'x');
    EXPECT_EQ(writeDataItem(kSystem, 2, longText.c_str(), true), 1);
    char text[22];
    ASSERT_EQ(readDataItem(kSystem, 2, text), 0);
    EXPECT_EQ(std::string(text), std::string(21, 'x'));
    EXPECT_EQ(writeDataItem(kSystem, 2, "ab", true), 1);
    std::string expected = "61 62";
    for (int k = 0; k < 20; ++k) expected += " 00";
    EXPECT_EQ(hexAt(kSystem, cm::catalogue::entry(kSystem, 2).recordOffset() + 4, 22), expected);
}

TEST_F(RecordAccess, BadRecordsAreRefusedAndLeaveNoLockBehind) {
    uint16_t v = 1;
    const std::string path = cm::paths::dataFile(kRed);
    cm::catalogue::entry(kRed, 2).setRecordOffset(cm::catalogue::kNoRecord);
    EXPECT_EQ(readDataItem(kRed, 2, &v), -1);
    EXPECT_EQ(writeDataItem(kRed, 2, &v, true), -1);
    for (const char* fn : {"CM_ReadDataItem", "CM_WriteDataItem"})
        EXPECT_TRUE(sink.contains(std::string("**ERROR: ") + fn + ", PID=" + std::to_string(getpid()) + ". CM data file [7] '" +
                                  path + "' bad or missing record for CM var ID=3138 (rel ID=2)\n"));

    poke(kRed, 22, std::string("\x00\x09", 2));  // relative ID of record 3
    poke(kRed, 29, std::string("\x00\x07", 2));  // length of record 4
    EXPECT_EQ(readDataItem(kRed, 3, &v), -1);
    EXPECT_EQ(readDataItem(kRed, 4, &v), -1);
    EXPECT_TRUE(sink.contains("record at offset 22  has wrong relative ID=9 (expected 3) for CM var abs ID=3139\n"));
    EXPECT_TRUE(sink.contains("record at offset 27 with relative ID=4 has wrong length=7 (expected 2) for CM var abs ID=3140\n"));

    ASSERT_EQ(unmapFile(kRed), 0);
    EXPECT_EQ(readDataItem(kRed, 5, &v), -1);
    EXPECT_EQ(writeDataItem(kRed, 5, &v, true), -1);
    EXPECT_EQ(sink.count("CM data file [7] dwLenMappedFile[] or pMappedFile[] is zero - skipping...\n"), 2);

    EXPECT_EQ(putDataItem(3290, &v), -1);
    EXPECT_EQ(getDataItem(3290, &v), -1);
    EXPECT_EQ(sink.count("Invalid Var Id of 3290\n"), 2);
    EXPECT_EQ(getDataItem(210, &v), -1);  // in the gap between files 0 and 1

    ASSERT_EQ(pthread_mutex_trylock(&mtxFile[kRed]), 0);
    pthread_mutex_unlock(&mtxFile[kRed]);
}

TEST_F(RecordAccess, IpAddressesTravelAsSocketAddresses) {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    inet_pton(AF_INET, "192.0.2.1", &in.sin_addr);
    uint8_t stored[20];
    ASSERT_EQ(cm::values::sockaddrToCmAddr(stored, reinterpret_cast<sockaddr*>(&in)), 0);
    EXPECT_EQ(putDataItem(3144, stored), 1);
    EXPECT_EQ(hexAt(kRed, 73, 20), "00 02 00 00 C0 00 02 01 00 00 00 00 00 00 00 00 00 00 00 00");
    sockaddr_in6 out{};  // room for either family, as callers must give
    ASSERT_EQ(getDataItem(3144, &out), 0);
    EXPECT_EQ(out.sin6_family, AF_INET);
    EXPECT_EQ(reinterpret_cast<sockaddr_in*>(&out)->sin_addr.s_addr, in.sin_addr.s_addr);

    poke(kRed, 73, std::string("\x00\x07", 2));  // unknown family
    EXPECT_EQ(getDataItem(3144, &out), -1);
    EXPECT_EQ(out.sin6_family, AF_UNSPEC);
    const auto line = sink.lines().back();
    EXPECT_NE(line.text.find("CM_GetDataItem:"), std::string::npos);
    EXPECT_NE(line.text.find(":  Invalid stored IP address in CM var ID=3144\n"), std::string::npos);
    EXPECT_EQ(line.priority, 4);
}

}  // namespace
