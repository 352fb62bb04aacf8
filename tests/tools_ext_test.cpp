// The extensions for tools: the read-only file check needs no started
// library; the log descriptor receives every written message.

#include "support/test_support.h"

namespace {

constexpr int kGeneral = 9;

class ToolsExt : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(CM_Host_SetRootDirectory(root.dir().c_str()), 0);
        CM_FileInfo f{};
        ASSERT_EQ(CM_Ext_GetFileInfo(kGeneral, &f), 0);
        path = f.szPath;
        // A good file as the master writes it: header, then each record at
        // its place with its relative ID and the catalogue's length.
        std::string bytes("\0\0\x12\x34", 4);
        for (int r = 0; r < f.iNumItems; ++r) {
            uint32_t size = 0;
            CM_GetDataSizeFromVarId(f.iFirstVarID + r, &size);
            offsets.push_back(static_cast<uint32_t>(bytes.size()));
            bytes += {char(r >> 8), char(r), char(size >> 8), char(size)};
            bytes += std::string(size, '\0');
        }
        ASSERT_EQ(bytes.size(), f.dwCorrectLength);
        good = bytes;
    }

    CM_FileCheck check(std::vector<CM_RecordFault>* faults = nullptr) {
        CM_FileCheck c{};
        std::vector<CM_RecordFault> buf(8);
        EXPECT_EQ(CM_Ext_CheckFile(kGeneral, &c, buf.data(), 8), 0);
        if (faults) *faults = std::vector<CM_RecordFault>(buf.begin(), buf.begin() + std::min(c.iBadRecords, 8));
        return c;
    }

    cmtest::TempRoot root;
    std::string path, good;
    std::vector<uint32_t> offsets;
};

// Every damaged record is listed, not only the first; nothing is changed (cmctl's check sweeps the kinds).
TEST_F(ToolsExt, FileCheckListsEveryBadRecordWithoutChangingTheFile) {
    std::string twoBad = good;
    twoBad[offsets[3] + 1] ^= 1;   // relative ID of record 3
    twoBad[offsets[10] + 3] ^= 2;  // length of record 10
    cmtest::writeFile(path, twoBad);
    std::vector<CM_RecordFault> faults;
    const CM_FileCheck r = check(&faults);
    EXPECT_EQ(std::tuple(r.dwFaults, r.iBadRecords, r.dwLength),
              std::tuple(uint32_t{CM_FILE_BAD_RECORDS}, 2, twoBad.size()));
    ASSERT_EQ(faults.size(), 2u);
    EXPECT_EQ(std::tuple(faults[0].dwOffset, faults[0].iExpectedRel, faults[0].iFoundRel),
              std::tuple(offsets[3], 3, 3 ^ 1));
    EXPECT_EQ(faults[1].dwOffset, offsets[10]);
    EXPECT_NE(faults[1].dwFoundLen, faults[1].dwExpectedLen);
    EXPECT_EQ(cmtest::readFile(path), twoBad);
    cmtest::writeFile(path, "");
    EXPECT_EQ(check().dwFaults, static_cast<uint32_t>(CM_FILE_BAD_HEADER | CM_FILE_TOO_SHORT));

    CM_FileInfo f{};
    CM_FileCheck c{};
    EXPECT_EQ(CM_Ext_GetFileInfo(-1, &f) + CM_Ext_GetFileInfo(10, &f) + CM_Ext_CheckFile(-1, &c, nullptr, 0), -3);
    EXPECT_EQ(CM_Ext_CheckFile(0, &c, nullptr, 0), 0);  // the first file is checked like any other
    EXPECT_EQ(c.dwFaults, static_cast<uint32_t>(CM_FILE_MISSING));
}

TEST_F(ToolsExt, LogDescriptorReceivesEveryChannel) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    CM_Ext_SetLogDescriptor(fds[1]);
    CM_GetCMvarTag(CM_NUM_VAR_IDS);  // logs an invalid ID on the system-log channel
    cm::log::emitTagged(3, "ends without a line feed");
    CM_Ext_SetLogDescriptor(-1);
    char buf[512] = {};
    const ssize_t n = read(fds[0], buf, sizeof buf - 1);
    close(fds[0]);
    close(fds[1]);
    ASSERT_GT(n, 0);
    EXPECT_EQ(cmtest::lines(buf).back(), "ends without a line feed");
    EXPECT_EQ(buf[n - 1], '\n');
}

// A root is taken only when every path under it fits in PATH_MAX.
TEST_F(ToolsExt, RootsThatLeaveNoRoomAreRefused) {
    const size_t longest = std::strlen(cm::paths::kTagCacheTempFile);
    for (size_t len : {PATH_MAX - longest - 1, PATH_MAX - longest, size_t{PATH_MAX} + 1}) {
        const std::string r = "/" + std::string(len - 1, 'r') + "/";  // a trailing '/' does not count
        EXPECT_EQ(CM_Host_SetRootDirectory(r.c_str()), len + longest < PATH_MAX ? 0 : -1) << len;
    }
    EXPECT_EQ(std::strlen(CM_Host_GetRootDirectory()), PATH_MAX - longest - 1) << "a refused root changes nothing";
}

}  // namespace
