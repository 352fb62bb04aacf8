// Lookups by name and by ID, conversions and their messages.
#include <tuple>

#include "support/test_support.h"

namespace {

class Lookup : public cmtest::LibraryTest {};

int idOf(const char* name, int len) {
    int32_t id = -99;
    return CM_GetVarIdFromName(name, len, &id) == 0 ? id : -1;
}

// Only the given length is compared, and it must be the whole tag; every tag
// finds its own ID.
TEST_F(Lookup, NamesMatchExactLengthAndCase) {
    for (auto [name, len, want] : {std::tuple{"CM_FLAG", 7, 0}, {"CM_FLAGXYZ", 7, 0}, {"CM_FLA", 6, -1},
                                   {"CM_FLAGX", 8, -1}, {"cm_flag", 7, -1}, {"UNIT_NAME\0", 10, -1}})
        EXPECT_EQ(idOf(name, len), want) << name << " " << len;
    EXPECT_TRUE(sink.lines().empty()) << "no match is silent";
    int n = 0;
    for (int32_t id = 0; id < CM_NUM_VAR_IDS; ++id) {
        const char* tag = CM_GetCMvarTag(id);
        n += tag != nullptr && idOf(tag, static_cast<int>(std::strlen(tag))) == id;
    }
    EXPECT_EQ(n, 3088);
}

TEST_F(Lookup, ConversionAndItsMessages) {
    int32_t rel = -1, file = -1;
    for (auto [id, f, r] : {std::tuple{3232, 9, 0}, {3073, 5, 2273}, {0, 0, 0}, {3289, 9, 57}}) {
        ASSERT_EQ(CM_ConvertAbsolute2Relative(id, &rel, &file), 0);
        EXPECT_EQ(std::pair(file, rel), std::pair(f, r)) << id;
    }
    rel = file = 77;
    for (int32_t gap : {203, 223, 228, 3074, 3290, -1}) {
        EXPECT_EQ(CM_ConvertAbsolute2Relative(gap, &rel, &file), -1);
        EXPECT_EQ(std::pair(file, rel), std::pair(77, 77)) << "nothing stored on failure";
        EXPECT_EQ(sink.count("Could not find Abs VarID " + std::to_string(gap) + "\n"), 1);
    }
}

TEST_F(Lookup, TypeSizeBoundsAndPredicates) {
    uint32_t type = 99, size = 99, mn = 1, mx = 1;
    uint8_t t8 = 99;
    EXPECT_EQ(CM_GetDataTypeFromVarId(UNIT_NAME, &type) + CM_GetDataSizeFromVarId(UNIT_NAME, &size), 0);
    EXPECT_EQ(std::pair(type, size), std::pair(uint32_t{DT_STRING}, 44u));
    EXPECT_EQ(CM_GetDataSizeFromVarId(203, &size), -1);
    EXPECT_EQ(CM_GetCMvarBounds(3284, &t8, &mn, &mx), 0);  // min above max, kept
    EXPECT_EQ(std::tuple(t8, mn, mx), std::tuple(uint8_t{DT_OCTET}, 3u, 2u));
    EXPECT_EQ(CM_GetCMvarBounds(203, &t8, &mn, &mx), -1);
    // 197 is a password, 5 an address, 45 reported.
    cm::catalogue::Location pw, ip, rep;
    ASSERT_TRUE(cm::catalogue::locate(197, pw) && cm::catalogue::locate(5, ip) && cm::catalogue::locate(45, rep));
    EXPECT_EQ(CM_ItemoDataTypeIsDT_PASSWORD(pw.iFileIndex, pw.iVarID_Rel), 1);
    EXPECT_EQ(CM_ItemoDataTypeIsDT_IPADDR(pw.iFileIndex, pw.iVarID_Rel), 0);
    EXPECT_EQ(CM_ItemoDataTypeIsDT_IPADDR(ip.iFileIndex, ip.iVarID_Rel), 1);
    EXPECT_EQ(CM_GetTellCMSInternal(rep.iFileIndex, rep.iVarID_Rel), 1);
}

TEST_F(Lookup, ReportableWalkNamesAndTags) {
    std::vector<int32_t> seen;
    for (int32_t id = CM_GetNextReportableVariable(3290); id != 3290 && seen.size() < 100; id = CM_GetNextReportableVariable(id))
        seen.push_back(id);
    ASSERT_EQ(seen.size(), 66u);
    EXPECT_EQ(std::tuple(seen[0], seen[1], seen.back()), std::tuple(45, 258, 3288));
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(CM_GetNextReportableVariable(203), -1);

    EXPECT_STREQ(CM_GetDataItemVariableName(UNIT_NAME), "(not initialised)");
    cm::process::ucCMInitialised = cm::process::kStarted;
    EXPECT_STREQ(CM_GetDataItemVariableName(UNIT_NAME), "UNIT_NAME");
    EXPECT_STREQ(CM_GetDataItemVariableName(3290), "(invalid iVarID_Abs)");
    EXPECT_STREQ(CM_GetDataItemVariableName(203), "(invalid iVarID_Abs)");
    EXPECT_EQ(CM_GetCMvarTag(3290), nullptr);
    EXPECT_TRUE(sink.contains("Bad CM var ID=3290 (range is 0 to 3289)\n"));
}

}  // namespace
