// Checks of the generated catalogue tables against the values they must hold.
#include <regex>
#include <tuple>

#include "support/test_support.h"

namespace cm::catalogue {
namespace {

const DataAccessStruct& at(int id) {
    return entry(kFileOfVarId[id], id - sConfigItemList[kFileOfVarId[id]].iFirstVarID);
}

// The number a left-aligned default holds: its top wDataSize bytes.
uint32_t numericDefault(const DataAccessStruct& e) { return e.oDefault.dwValue >> (8 * (4 - e.wDataSize)); }

// The file table, and every ID (gaps included) mapping to the file whose range holds it.
TEST(Catalogue, FilesAndTheFileOfEveryId) {
    struct Row { const char* path; uint16_t version; int count, first; };
    const Row rows[kNumFiles] = {
        {"/tmp/CMF_VolatileData", 0, 203, 0},           {"/var/AppData/config/CMF_SystemData", 1, 4, 224},
        {"/var/AppData/config/CMF_NetworkData", 0, 121, 256}, {"/var/AppData/config/CMF_DSPdata", 0, 216, 384},
        {"/var/AppData/config/CMF_T1E1data", 0, 159, 608}, {"/var/AppData/config/CMF_CTdata", 0, 2274, 800},
        {"/var/AppData/config/CMF_WDdata", 0, 11, 3104},  {"/var/AppData/config/CMF_RedData", 0, 10, 3136},
        {"/var/AppData/config/CMF_SIPdata", 0, 32, 3168}, {"/var/AppData/config/CMF_GeneralData", 0, 58, 3232},
    };
    for (int i = 0; i < kNumFiles; ++i) {
        const ConfigItemList& f = sConfigItemList[i];
        const Row& w = rows[i];
        EXPECT_EQ(std::make_tuple(std::string(f.szPath), f.wVersion, f.wZero, f.iNumItems, f.iFirstVarID),
                  std::make_tuple(std::string(w.path), w.version, uint16_t{0}, w.count, w.first));
    }
    for (int id = 0; id < kNumVarIds; ++id) {
        int expected = -1;
        for (int i = 0; i < kNumFiles; ++i)
            if (id >= rows[i].first && id < rows[i].first + rows[i].count) expected = i;
        ASSERT_EQ(kFileOfVarId[id], expected) << "ID " << id;
    }
}

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

TEST(Catalogue, DecodedDefaults) {
    EXPECT_EQ(at(LINE_INTERFACE_E1_MF_SYNC_STATUS_1).oDefault.dwValue, 0x01000000u);  // octet 1
    EXPECT_EQ(at(CURRENT_CMS_PORT_ADDRESS).oDefault.dwValue, 9190u << 16);
    EXPECT_EQ(at(CM_DSP_IP_ADDRESS).oDefault.dwValue, 2851996162u);
    EXPECT_EQ(numericDefault(at(ENET_MODE_2)), 5u);  // list:0,5
    for (int n = 0; n < 30; ++n)  // seq: even RTP ports 10000, 10002, ...
        EXPECT_EQ(numericDefault(at(CM_DSP_VOICE_RECORDING_STREAM_1_PORT + n)), 10000u + 2 * n);

    auto text = [](int id) { return std::string(reinterpret_cast<const char*>(at(id).oDefault.pData)); };
    EXPECT_EQ(text(SNMP_READ_COMMUNITY_20), "vortex");
    for (int n = 1; n <= 30; ++n) {
        EXPECT_EQ(text(GROUP_LABEL_1 + n - 1), "Group " + std::to_string(n));
        EXPECT_EQ(text(DYN_GROUP_LABEL_1 + n - 1), "Reserved Dynamic Call");
    }
}

// Rows kept with a default outside their bounds, or with inverted bounds:
// the range check and the defaults loader depend on exactly these values.
TEST(Catalogue, RuleBreakingRowsKept) {
    struct Case { int id; uint32_t min, max, value; };
    const Case cases[] = {
        {6, 0xFF000000u, 0xFFFFFFFFu, 0},    {194, 1, 2, 0},  {1788, 0, 30, 255}, {3249, 0, 255, 0x80100005u},
        {3275, 0x01000000u, 0xDFFFFFFFu, 0}, {3276, 0x01000000u, 0xDFFFFFFFu, 0}, {3277, 0x01000000u, 0xDFFFFFFFu, 0},
        {3278, 0x01000000u, 0xDFFFFFFFu, 0}, {3279, 0x01000000u, 0xDFFFFFFFu, 0}, {3281, 0x01000000u, 0xDFFFFFFFu, 0},
        {3280, 0xFF000000u, 0xFFFFFFFFu, 0}, {3284, 3, 2, 3},
    };
    for (const Case& c : cases)
        EXPECT_EQ(std::make_tuple(at(c.id).dwMin, at(c.id).dwMax, numericDefault(at(c.id))),
                  std::make_tuple(c.min, c.max, c.value)) << "ID " << c.id;
}

}  // namespace
}  // namespace cm::catalogue
