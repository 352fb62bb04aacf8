// Checks of the generated catalogue tables against the values they must hold.
#include <regex>

#include "support/test_support.h"

namespace cm::catalogue {
namespace {

// One walk over every entry: totals by type, group and report flag; numeric
// defaults left-aligned with zero bytes below; other defaults wDataSize bytes
// of text and zero padding, with bounds that follow the size; unique tags of
// upper-case words joined by '_' (one established tag keeps a lower-case 's').
TEST(Catalogue, EveryEntry) {
    const int kFixedSize[kNumDataTypes] = {1, 2, 4, 0, 0, 20, 130};  // by type; 0: set per variable
    int byType[kNumDataTypes] = {}, byGroup[4] = {}, reportable = 0;
    std::set<std::string> names;
    const std::regex word("[A-Z0-9]+(_[A-Z0-9]+)*");
    for (int i = 0; i < kNumFiles; ++i)
        for (int r = 0; r < sConfigItemList[i].iNumItems; ++r) {
            const DataAccessStruct& e = entry(i, r);
            SCOPED_TRACE(std::to_string(sConfigItemList[i].iFirstVarID + r) + " " + e.szVarTag);
            ASSERT_LT(e.ucDataType, kNumDataTypes);
            ASSERT_LT(e.ucAttrib, 4);
            EXPECT_EQ(e.dwFlags & ~kReportFlag, 0u);
            ++byType[e.ucDataType], ++byGroup[e.ucAttrib], reportable += e.reportable();
            names.insert(e.szVarTag);
            EXPECT_TRUE(std::regex_match(e.szVarTag, word) || std::string(e.szVarTag) == "CM_DSP_MAX_NO_OF_CSRCs");
            const int size = kFixedSize[e.ucDataType];
            ASSERT_TRUE(size == 0 || e.wDataSize == size) << "size " << e.wDataSize;
            if (e.ucDataType <= DT_DWORD) {
                EXPECT_EQ(e.oDefault.dwValue & (0xFFFFFFFFull >> (8 * e.wDataSize)), 0u);
                continue;
            }
            const uint8_t* p = e.oDefault.pData;
            ASSERT_NE(p, nullptr);
            const size_t len = strnlen(reinterpret_cast<const char*>(p), e.wDataSize);
            ASSERT_TRUE(e.ucDataType == DT_STRING ? len < e.wDataSize : len == 0) << "text " << p;
            for (size_t b = len; b < e.wDataSize; ++b) ASSERT_EQ(p[b], 0) << "byte " << b;
            // Text types keep room for the terminator, raw bytes fill their size, addresses have none.
            const bool text = e.ucDataType == DT_STRING || e.ucDataType == DT_PASSWORD;
            EXPECT_EQ(e.dwMin, 0u);
            EXPECT_EQ(e.dwMax, text ? e.wDataSize - 1u : e.ucDataType == DT_OCTET_STRING ? e.wDataSize : 0u);
        }
    const int types[kNumDataTypes] = {2211, 208, 72, 409, 3, 183, 2}, groups[4] = {215, 6, 716, 2151};
    for (int t = 0; t < kNumDataTypes; ++t) EXPECT_EQ(byType[t], types[t]) << "type " << t;
    for (int g = 0; g < 4; ++g) EXPECT_EQ(byGroup[g], groups[g]) << "group " << g;
    EXPECT_EQ(reportable, 66);
    EXPECT_EQ(names.size(), 3088u) << "one unique tag per variable";
}

}  // namespace
}  // namespace cm::catalogue
