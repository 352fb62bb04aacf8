// Lookups by name and by ID, conversions and their messages.
#include <tuple>

#include "support/test_support.h"

namespace {

class Lookup : public cmtest::LibraryTest {};

int idOf(const char* name, int len) {
    int32_t id = -99;
    return CM_GetVarIdFromName(name, len, &id) == 0 ? id : -1;
}

// Only the given length is compared, and it must be the whole tag.
TEST_F(Lookup, NamesMatchExactLengthAndCase) {
    for (auto [name, len, want] : {std::tuple{"CM_FLAG", 7, 0}, {"CM_FLAGXYZ", 7, 0}, {"CM_FLA", 6, -1},
                                   {"CM_FLAGX", 8, -1}, {"cm_flag", 7, -1}, {"UNIT_NAME\0", 10, -1}})
        EXPECT_EQ(idOf(name, len), want) << name << " " << len;
    EXPECT_TRUE(sink.lines().empty()) << "no match is silent";
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

TEST_F(Lookup, ReportableWalkAndTags) {
    std::vector<int32_t> seen;
    for (int32_t id = CM_GetNextReportableVariable(3290); id != 3290 && seen.size() < 100; id = CM_GetNextReportableVariable(id))
        seen.push_back(id);
    ASSERT_EQ(seen.size(), 66u);
    EXPECT_EQ(std::tuple(seen[0], seen[1], seen.back()), std::tuple(45, 258, 3288));
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    EXPECT_EQ(CM_GetNextReportableVariable(203), -1);
    EXPECT_EQ(CM_GetCMvarTag(3290), nullptr);
    EXPECT_TRUE(sink.contains("Bad CM var ID=3290 (range is 0 to 3289)\n"));
}

}  // namespace
