// Lookups by name and by ID, conversions and their messages.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "catalogue/lookup.h"
#include "configmanager/cm_lookup.h"
#include "configmanager/cm_vars.h"
#include "lifecycle/state.h"
#include "support/test_support.h"

namespace {

class Lookup : public ::testing::Test {
protected:
    void SetUp() override { cmtest::resetLibraryState(); }
    void TearDown() override { cmtest::resetLibraryState(); }
    cmtest::CaptureSink sink;
};

int idOf(const char* name, int len) {
    int32_t id = -99;
    return CM_GetVarIdFromName(name, len, &id) == 0 ? id : -1;
}

TEST_F(Lookup, NameMatchesExactLengthAndCase) {
    EXPECT_EQ(idOf("CM_FLAG", 7), 0);
    EXPECT_EQ(idOf("CM_FLA", 6), -1);
    EXPECT_EQ(idOf("CM_FLAGX", 8), -1);
    EXPECT_EQ(idOf("cm_flag", 7), -1);
    // A longer text given with a shorter length matches only that prefix tag.
    EXPECT_EQ(idOf("CM_FLAGXYZ", 7), 0);
    EXPECT_EQ(idOf("UNIT_NAME", 9), UNIT_NAME);
    EXPECT_EQ(idOf("UNIT_NAME\0", 10), -1);
    EXPECT_EQ(idOf("LAST_DATE_TIME", 14), 3289);
    EXPECT_TRUE(sink.lines().empty()) << "no match is silent";

    int32_t id;
    EXPECT_EQ(CM_GetVarIdFromName(nullptr, 3, &id), -1);
    EXPECT_EQ(CM_GetVarIdFromName("CM_FLAG", 7, nullptr), -1);
    EXPECT_EQ(sink.count("**ERROR:CM_GetVarIdFromName:../src/CM_FileAccess.c:  Arg ptrs NULL\n"), 2);
}

TEST_F(Lookup, EveryTagRoundTripsThroughNameAndId) {
    int n = 0;
    for (int32_t id = 0; id < CM_NUM_VAR_IDS; ++id) {
        const char* tag = CM_GetCMvarTag(id);
        if (tag == nullptr) continue;
        ++n;
        ASSERT_EQ(idOf(tag, static_cast<int>(std::strlen(tag))), id) << tag;
    }
    EXPECT_EQ(n, 3088);
}

TEST_F(Lookup, ConversionAndItsMessages) {
    int32_t rel = -1, file = -1;
    ASSERT_EQ(CM_ConvertAbsolute2Relative(3232, &rel, &file), 0);
    EXPECT_EQ(file, 9);
    EXPECT_EQ(rel, 0);
    ASSERT_EQ(CM_ConvertAbsolute2Relative(3073, &rel, &file), 0);
    EXPECT_EQ(file, 5);
    EXPECT_EQ(rel, 2273);

    for (int32_t gap : {203, 223, 228, 3074, 3290, -1}) {
        rel = file = 77;
        sink.clear();
        EXPECT_EQ(CM_ConvertAbsolute2Relative(gap, &rel, &file), -1);
        EXPECT_EQ(rel, 77) << "nothing stored on failure";
        EXPECT_EQ(sink.count("Could not find Abs VarID " + std::to_string(gap) + "\n"), 1);
    }
    sink.clear();
    EXPECT_EQ(CM_ConvertAbsolute2Relative(5, nullptr, &file), -1);
    EXPECT_TRUE(sink.contains("**ERROR:CM_ConvertAbsolute2Relative:../src/CM_FileAccess.c:  Process PID="));
    EXPECT_TRUE(sink.contains(" Arg ptrs NULL\n"));
}

TEST_F(Lookup, TypeSizeAndBounds) {
    uint32_t type = 99, size = 99, mn = 1, mx = 1;
    uint8_t t8 = 99;
    EXPECT_EQ(CM_GetDataTypeFromVarId(UNIT_NAME, &type), 0);
    EXPECT_EQ(type, static_cast<uint32_t>(DT_STRING));
    EXPECT_EQ(CM_GetDataSizeFromVarId(UNIT_NAME, &size), 0);
    EXPECT_EQ(size, 44u);
    type = 99;
    EXPECT_EQ(CM_GetDataTypeFromVarId(203, &type), -1);
    EXPECT_EQ(type, 99u) << "output untouched on failure";

    EXPECT_EQ(CM_GetCMvarBounds(3284, &t8, &mn, &mx), 0);  // min above max, kept
    EXPECT_EQ(t8, DT_OCTET);
    EXPECT_EQ(mn, 3u);
    EXPECT_EQ(mx, 2u);
    EXPECT_EQ(CM_GetCMvarBounds(6, nullptr, nullptr, nullptr), 0);
    sink.clear();
    EXPECT_EQ(CM_GetCMvarBounds(3290, &t8, &mn, &mx), -1);
    EXPECT_TRUE(sink.contains("Invalid Var Id of 3290\n"));
    EXPECT_EQ(CM_GetCMvarBounds(203, &t8, &mn, &mx), -1);

    cm::catalogue::Location loc;
    ASSERT_TRUE(cm::catalogue::locate(197, loc));
    EXPECT_EQ(CM_ItemoDataTypeIsDT_PASSWORD(loc.iFileIndex, loc.iVarID_Rel), 1);
    EXPECT_EQ(CM_ItemoDataTypeIsDT_IPADDR(loc.iFileIndex, loc.iVarID_Rel), 0);
    ASSERT_TRUE(cm::catalogue::locate(5, loc));
    EXPECT_EQ(CM_ItemoDataTypeIsDT_IPADDR(loc.iFileIndex, loc.iVarID_Rel), 1);
    ASSERT_TRUE(cm::catalogue::locate(45, loc));
    EXPECT_EQ(CM_GetTellCMSInternal(loc.iFileIndex, loc.iVarID_Rel), 1);
}

TEST_F(Lookup, ReportableWalk) {
    std::vector<int32_t> seen;
    for (int32_t id = CM_GetNextReportableVariable(3290); id != 3290; id = CM_GetNextReportableVariable(id)) {
        ASSERT_GE(id, 0);
        seen.push_back(id);
        ASSERT_LE(seen.size(), 100u);
    }
    ASSERT_EQ(seen.size(), 66u);
    EXPECT_EQ(seen[0], 45);
    EXPECT_EQ(seen[1], 258);
    EXPECT_EQ(seen.back(), 3288);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(CM_GetNextReportableVariable(3288), 3290);
    EXPECT_EQ(CM_GetNextReportableVariable(203), -1);
    // Continuing from an unreported ID finds the next reported one across files.
    EXPECT_EQ(CM_GetNextReportableVariable(46), 258);
}

TEST_F(Lookup, NamesAndTags) {
    EXPECT_STREQ(CM_GetDataItemVariableName(UNIT_NAME), "(not initialised)");
    cm::lifecycle::ucCMInitialised = cm::lifecycle::kStarted;
    EXPECT_STREQ(CM_GetDataItemVariableName(UNIT_NAME), "UNIT_NAME");
    EXPECT_STREQ(CM_GetDataItemVariableName(3290), "(invalid iVarID_Abs)");
    EXPECT_STREQ(CM_GetDataItemVariableName(203), "(invalid iVarID_Abs)");

    sink.clear();
    EXPECT_EQ(CM_GetCMvarTag(3290), nullptr);
    EXPECT_TRUE(sink.contains("Bad CM var ID=3290 (range is 0 to 3289)\n"));
    EXPECT_STREQ(CM_GetCMvarTag(0), "CM_FLAG");
}

}  // namespace
