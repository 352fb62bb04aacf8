// The backup text and the restore from it: the rendering of every type, a round
// trip of a changed configuration (filtered or not), what bad files come to.

#include "support/test_support.h"

using cm::catalogue::DataAccessStruct;

namespace {

using cmtest::lines;
std::string hex(const uint8_t* p, size_t n) { return cmtest::hex(p, n); }

// The value text of a catalogue default, built from the table alone.
std::string renderDefault(const DataAccessStruct& e) {
    const uint32_t d = e.oDefault.dwValue;
    switch (e.ucDataType) {
    case DT_OCTET: return std::to_string(d >> 24);
    case DT_WORD: return std::to_string(d >> 16);
    case DT_DWORD: return std::to_string(d);
    case DT_STRING: return e.oDefault.pData && e.oDefault.pData[0] ? reinterpret_cast<const char*>(e.oDefault.pData) : "NULL";
    case DT_IPADDR: return "NULL";  // every address default is "none"
    default: {
        std::vector<uint8_t> bytes(e.wDataSize, 0);
        const uint8_t* p = e.oDefault.pData;
        if (p && !(e.ucDataType == DT_PASSWORD && p[0] == 0 && p[1] == 0)) std::memcpy(bytes.data(), p, bytes.size());
        return hex(bytes.data(), bytes.size());
    }
    }
}

std::vector<std::string> expectedBackup(bool withVolatile, bool withOctets) {
    std::vector<std::string> out = {"SOFTWARE_VERSION : Unknown"};
    for (const auto& v : cmtest::allVars()) {
        if (v.id == SOFTWARE_VERSION || (!withVolatile && v.file == 0)) continue;
        if (!withOctets && (v.e->ucDataType == DT_OCTET_STRING || v.e->ucDataType == DT_PASSWORD)) continue;
        out.push_back(v.tag + " : " + renderDefault(*v.e));
    }
    return out;
}

std::string bare(int32_t id) {
    char t[CM_VALUE_TEXT_SIZE] = "";
    EXPECT_EQ(CM_Get_Var_Value_As_String(id, t), 0) << id;
    return t;
}

std::map<int32_t, std::string> snapshot() {
    std::map<int32_t, std::string> m;
    for (const auto& v : cmtest::allVars()) m[v.id] = bare(v.id);
    return m;
}

class BackupRestore : public cmtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(CM_init(1), 0);
    }
    // Every variable but CM_FLAG changed away from its default, by type.
    static void changeEverything() {
        for (const auto& [id, f, r, e, tag] : cmtest::allVars()) {
            if (id == CM_FLAG || id == SOFTWARE_VERSION) continue;  // the backup's own line
            const uint32_t spread = static_cast<uint32_t>(id) * 2654435761u;
            std::string text;
            switch (e->ucDataType) {
            case DT_OCTET:
            case DT_WORD:
            case DT_DWORD:
                if (e->dwMax <= e->dwMin) continue;
                text = std::to_string(e->dwMin + spread % (uint64_t{e->dwMax} - e->dwMin + 1));
                break;
            case DT_STRING: text = "v" + std::to_string(id) + " & x"; break;
            case DT_IPADDR: text = id % 2 ? "2001:db8::" + std::to_string(id) : "10.1.2." + std::to_string(id % 250); break;
            case DT_PASSWORD: text = "secret " + std::to_string(id); break;
            case DT_OCTET_STRING: {
                std::vector<uint8_t> raw(e->wDataSize);
                for (size_t k = 0; k < raw.size(); ++k) raw[k] = static_cast<uint8_t>(spread >> (k % 4 * 8));
                ASSERT_GE(CM_PutDataItem(id, raw.data()), 0);
                continue;
            }
            }
            ASSERT_GE(CM_PutDataItemFromString(id, text.c_str()), 0) << id << " " << text;
        }
    }
    static void defaultsEverywhere() {
        for (int f = 0; f < CM_NUM_FILES; ++f) ASSERT_EQ(CM_WriteDefaultData(f, 1, 0), 0);
    }
    int syslogCount(const std::string& fragment, int priority) { return sink.count(fragment, priority); }
    const std::string backup = root.dir() + "/backup.txt", filter = root.dir() + "/filter.txt";
};

TEST_F(BackupRestore, FreshConfigurationMatchesTheCatalogue) {
    for (bool withVolatile : {false, true})
        for (bool withOctets : {false, true}) {
            SCOPED_TRACE(std::to_string(withVolatile) + std::to_string(withOctets));
            ASSERT_EQ(CM_BackupConfig_common(backup.c_str(), withVolatile, withOctets), 0);
            EXPECT_EQ(lines(cmtest::readFile(backup)), expectedBackup(withVolatile, withOctets));
        }
}

TEST_F(BackupRestore, SpecialForms) {
    const uint32_t dwMax = 4294967295u;
    ASSERT_GE(CM_PutDataItem(CT_REPORT_CONFIG, &dwMax), 0);
    const uint8_t mac[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0xAB, 0xCD};
    ASSERT_GE(CM_PutDataItem(MAC1_ADDRESS, mac), 0);
    ASSERT_GE(CM_PutDataItemFromString(CURRENT_IP4_ADDRESS, "192.0.2.1"), 0);
    ASSERT_GE(CM_PutDataItemFromString(CURRENT_IP6_ADDRESS, "2001:db8::1"), 0);
    // A stored address of an unknown family is logged and written as NULL.
    const uint8_t bad[20] = {0, 7, 0, 0, 1, 2, 3, 4};
    ASSERT_GE(CM_WriteDataItem(0, CURRENT_IP4_DEFAULT_GATEWAY, bad, 1), 0);

    const std::vector<std::pair<std::string, std::string>> versions = {
        {"1.2 beta", "0.000.0.0"}, {"", "0.000.0.0"}, {"a\tb", "0.000.0.0"}, {"3.400.4.0", "3.400.4.0"}};
    for (const auto& [version, line1] : versions) {
        ASSERT_EQ(CM_Set_Variable(SOFTWARE_VERSION, version.c_str()), 0);
        ASSERT_EQ(CM_BackupConfig_common(backup.c_str(), 1, 1), 0);
        EXPECT_EQ(lines(cmtest::readFile(backup))[0], "SOFTWARE_VERSION : " + line1);
    }
    const std::string text = cmtest::readFile(backup);
    for (const char* want : {"\nCT_REPORT_CONFIG : 4294967295\n", "\nMAC1_ADDRESS : 0x010203040506ABCD\n",
                             "\nCURRENT_IP4_ADDRESS : 192.0.2.1\n", "\nCURRENT_IP6_ADDRESS : 2001:db8::1\n",
                             "\nCURRENT_IP4_DEFAULT_GATEWAY : NULL\n", "\nCURRENT_DOMAIN_NAME : NULL\n"})
        EXPECT_NE(text.find(want), std::string::npos) << want;
    EXPECT_TRUE(sink.contains("**ERROR: CM_BackupConfig_common: Unable to convert CM var CURRENT_IP4_DEFAULT_GATEWAY "
                              "[0x70000 0x1020304 0x0 0x0 0x0]\n"));

    // Failures: no path, a directory that does not exist (straight to the
    // system log even in console mode), a library that is not running.
    __atomic_store_n(&g_iConsoleLog, 1, __ATOMIC_RELAXED);
    const std::string nowhere = root.dir() + "/no/such/dir/b.txt";
    EXPECT_EQ(CM_BackupConfig_common(nowhere.c_str(), 1, 1), -1);
    EXPECT_EQ(syslogCount("Unable to open " + nowhere + " for Writing\n", 3), 1);
    ASSERT_EQ(CM_Exit(), 0);
    EXPECT_EQ(CM_BackupConfig_common(backup.c_str(), 1, 1), -1);
    EXPECT_TRUE(sink.contains("**ERROR: CM_BackupConfig_common: Unable to read CM var SOFTWARE_VERSION\n"));
    EXPECT_EQ(cmtest::readFile(backup), "") << "the file stays, empty";
}

TEST_F(BackupRestore, RoundTripWithAndWithoutFilter) {
    changeEverything();
    const auto before = snapshot();
    ASSERT_EQ(CM_BackupConfig_common(backup.c_str(), 1, 1), 0);

    auto check = [&](const std::string& heldBack) {
        int held = 0;
        for (const auto& [id, f, r, e, tag] : cmtest::allVars()) {
            const std::string now = bare(id);
            if (!heldBack.empty() && std::string(e->szVarTag).rfind(heldBack, 0) == 0) {
                ++held;
                EXPECT_EQ(now, renderDefault(*e) == "NULL" ? "" : renderDefault(*e)) << e->szVarTag;
            } else if (e->ucDataType == DT_OCTET_STRING) {
                // Restored from their text: the value is the text's own bytes.
                EXPECT_EQ(now, hex(reinterpret_cast<const uint8_t*>(before.at(id).c_str()), e->wDataSize)) << e->szVarTag;
            } else {
                EXPECT_EQ(now, before.at(id)) << e->szVarTag;
            }
        }
        return held;
    };

    defaultsEverywhere();
    EXPECT_EQ(CM_RestoreConfig(backup.c_str(), nullptr), 0);
    EXPECT_EQ(syslogCount("CM variables have been restored from file '" + backup + "'\n", 5), 1);
    check("");
    char plain[CM_PASSWD_TEXT_SIZE];
    ASSERT_EQ(CM_Get_Passwd(CURRENT_FILE_TRANSFER_PASSWORD, plain), 0);
    EXPECT_STREQ(plain, ("secret " + std::to_string(CURRENT_FILE_TRANSFER_PASSWORD)).c_str());

    // One name holds back a family; a one-character name and a name that
    // keeps its carriage return hold back nothing.
    cmtest::writeFile(filter, "DHCP_\nC\n\nCT_\r\n");
    defaultsEverywhere();
    sink.clear();
    EXPECT_EQ(CM_RestoreConfig(backup.c_str(), filter.c_str()), 0);
    const int held = check("DHCP_");
    EXPECT_GT(held, 10);
    EXPECT_EQ(syslogCount("' not restored, as its name matches filter 'DHCP_'\n", 6), held);
    EXPECT_EQ(syslogCount("not restored", 6), held);
}

// A restore holds each file whole across its lines: every changed variable
// is told once, an unchanged one never, those of one file in ascending order
// (across files, order is not kept), and the CRC word is written.
TEST_F(BackupRestore, RestoredChangesAreToldOnceInOrder) {
    static std::mutex mu;
    static std::vector<int32_t> told;
    const auto seen = [] { return std::lock_guard(mu), told; };
    told.clear();
    for (int32_t id : {CURRENT_DOMAIN_NAME, MTU_VALUE, CMS_CONNECT_TIMEOUT, UNIT_NAME, UNIT_LOCATION})
        ASSERT_EQ(CM_Register_Interest(id, [](int32_t id) { return std::lock_guard(mu), told.push_back(id), 0; }), 0);
    const std::string general = cm::storage::pathOf(9), location = bare(UNIT_LOCATION);
    cmtest::rewrite(general, cmtest::readFile(general).replace(2, 2, "\xAB\xCD"));
    cmtest::writeFile(backup, "SOFTWARE_VERSION : 1\nCURRENT_DOMAIN_NAME : lab\nMTU_VALUE : 1400\nUNIT_NAME : held\n"
                              "CMS_CONNECT_TIMEOUT : 99\nUNIT_LOCATION : " + (location.empty() ? "NULL" : location) + "\n");
    ASSERT_EQ(CM_RestoreConfig(backup.c_str(), nullptr), 0);
    EXPECT_EQ(cmtest::readFile(general).substr(2, 2), "\x12\x34");
    ASSERT_GE(CM_PutDataItemFromString(UNIT_LOCATION, "sentinel"), 1);
    ASSERT_TRUE(cmtest::waitFor([&] { return seen().size() >= 5; })) << ::testing::PrintToString(seen());
    auto all = seen(), inGeneral = all;
    std::erase_if(inGeneral, [](int32_t id) { return id < CMS_CONNECT_TIMEOUT; }), std::sort(all.begin(), all.end());
    EXPECT_EQ(inGeneral, (std::vector<int32_t>{CMS_CONNECT_TIMEOUT, UNIT_NAME, UNIT_LOCATION}));
    EXPECT_EQ(all, (std::vector<int32_t>{CURRENT_DOMAIN_NAME, MTU_VALUE, CMS_CONNECT_TIMEOUT, UNIT_NAME, UNIT_LOCATION}));
}

TEST_F(BackupRestore, RefusalsAndPartialFailures) {
    cmtest::writeFile(filter, "");
    struct Case {
        const char* name;
        std::string content;
        int rc;
        std::vector<std::string> messages;  // each on the system log, in this order
    };
    const std::string tooLong(200, 'p');
    const std::vector<Case> cases = {
        {"not a backup", "MAC1_ADDRESS : 0x0102030405060708\nUNIT_NAME : changed\n", 1,
         {"Corrupted backup file, the first line 'MAC1_ADDRESS : 0x0102030405060708' is not for SOFTWARE_VERSION\n",
          "CM variables have not been restored from file '"}},
        {"empty", "", 1, {"Corrupted backup file, the first line ' : ' is not for SOFTWARE_VERSION\n"}},
        {"binary", std::string("\0\xff\x01\n", 4), 1, {"is not for SOFTWARE_VERSION"}},
        {"other version, bad among good",
         "SOFTWARE_VERSION : 9.9.9.9\nUNIT_NAME : NULL\nNO_SUCH_TAG : 5\nCURRENT_FILE_TRANSFER_PASSWORD : " + tooLong +
             "\nCT_REPORT_CONFIG : 17",  // no final line feed
         1,
         {"<<CM_FindMatchingCMvarTag>> Tag NO_SUCH_TAG not found\n", "Tag NO_SUCH_TAG not found\n",
          "Set operation failed for CM var CURRENT_FILE_TRANSFER_PASSWORD, check value?\n",
          "CM variables have been restored from file '" + backup + "', with errors\n"}},
        {"a name this version lacks", "SOFTWARE_VERSION : 1\nNO_SUCH_TAG : 5\n", 0,
         {"Tag NO_SUCH_TAG not found\n", "CM variables have been restored from file '" + backup + "'\n"}},
        {"malformed lines",
         "SOFTWARE_VERSION : 1\n\n   \nUNIT_NAME\nUNIT_LOCATION = x\nCT_REPORT_CONFIG : 18\nSNMP_" + std::string(100, 'X') +
             " : 1\nUNIT_LOCATION : " + std::string(600, 'v') + "\n",
         1, {"Set operation failed for CM var UNIT_NAME, check value?\n", "with errors\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_GE(CM_PutDataItemFromString(UNIT_NAME, "kept"), 0);
        auto before = snapshot();
        cmtest::writeFile(backup, c.content);
        sink.clear();
        EXPECT_EQ(CM_RestoreConfig(backup.c_str(), filter.c_str()), c.rc);
        size_t at = 0;
        const auto ls = sink.lines();
        for (const auto& m : c.messages) {
            while (at < ls.size() && ls[at].text.find(m) == std::string::npos) ++at;
            ASSERT_LT(at, ls.size()) << "missing or out of order: " << m;
            EXPECT_EQ(ls[at].channel, cm::log::Channel::Syslog);
        }
        // Nothing but the named, good lines is written.
        auto after = snapshot();
        if (c.content.find("UNIT_NAME : NULL") != std::string::npos) before[UNIT_NAME] = "";
        if (c.content.find("CT_REPORT_CONFIG : 17") != std::string::npos) before[CT_REPORT_CONFIG] = "17";
        if (c.content.find("CT_REPORT_CONFIG : 18") != std::string::npos) before[CT_REPORT_CONFIG] = "18";
        EXPECT_EQ(after, before);
    }
    EXPECT_EQ(CM_RestoreConfig((root.dir() + "/none").c_str(), nullptr), 1);
    EXPECT_TRUE(sink.contains("Failed to open CM backup file '" + root.dir() + "/none' for reading\n"));
}

TEST_F(BackupRestore, FilterFileLimits) {
    cmtest::writeFile(backup, "SOFTWARE_VERSION : 1\nUNIT_NAME : restored\n");
    std::string names;
    for (int k = 0; k < 60; ++k) names += "N" + std::to_string(k) + "\n";
    cmtest::writeFile(filter, names);
    EXPECT_EQ(CM_RestoreConfig(backup.c_str(), filter.c_str()), 0);
    EXPECT_EQ(syslogCount("Filter file '" + filter + "' contains more than 50 names, 'N50' onwards ignored.\n", 4), 1);

    const std::string missing = root.dir() + "/no-filter";
    EXPECT_EQ(CM_RestoreConfig(backup.c_str(), missing.c_str()), 0);
    EXPECT_EQ(syslogCount("Failed to open filter file '" + missing + "' for reading, all CM vars in '" + backup +
                              "' will be restored.\n", 4), 1);
    EXPECT_EQ(bare(UNIT_NAME), "restored");
}

}  // namespace
