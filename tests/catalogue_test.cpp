// Checks of the generated catalogue tables against the values they must hold.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "catalogue/catalogue.h"
#include "configmanager/cm_vars.h"

namespace cm::catalogue {
namespace {

const DataAccessStruct& at(int iVarID_Abs) {
    const int f = kFileOfVarId[iVarID_Abs];
    EXPECT_GE(f, 0) << "ID " << iVarID_Abs << " belongs to no file";
    return entry(f, iVarID_Abs - sConfigItemList[f].iFirstVarID);
}

bool isNumeric(const DataAccessStruct& e) { return e.ucDataType <= DT_DWORD; }

// The number a left-aligned default holds: its top wDataSize bytes.
uint32_t numericDefault(const DataAccessStruct& e) { return e.oDefault.dwValue >> (8 * (4 - e.wDataSize)); }

template <typename F>
void forEachEntry(F f) {
    for (int i = 0; i < kNumFiles; ++i)
        for (int r = 0; r < sConfigItemList[i].iNumItems; ++r)
            f(sConfigItemList[i].iFirstVarID + r, entry(i, r));
}

TEST(Catalogue, FileTable) {
    struct Row {
        const char* path;
        uint16_t version;
        int count, first;
    };
    const Row rows[kNumFiles] = {
        {"/tmp/CMF_VolatileData", 0, 203, 0},
        {"/var/AppData/config/CMF_SystemData", 1, 4, 224},
        {"/var/AppData/config/CMF_NetworkData", 0, 121, 256},
        {"/var/AppData/config/CMF_DSPdata", 0, 216, 384},
        {"/var/AppData/config/CMF_T1E1data", 0, 159, 608},
        {"/var/AppData/config/CMF_CTdata", 0, 2274, 800},
        {"/var/AppData/config/CMF_WDdata", 0, 11, 3104},
        {"/var/AppData/config/CMF_RedData", 0, 10, 3136},
        {"/var/AppData/config/CMF_SIPdata", 0, 32, 3168},
        {"/var/AppData/config/CMF_GeneralData", 0, 58, 3232},
    };
    int total = 0;
    for (int i = 0; i < kNumFiles; ++i) {
        SCOPED_TRACE(i);
        const ConfigItemList& f = sConfigItemList[i];
        EXPECT_STREQ(f.szPath, rows[i].path);
        EXPECT_EQ(f.wVersion, rows[i].version);
        EXPECT_EQ(f.wZero, 0);
        EXPECT_EQ(f.iNumItems, rows[i].count);
        EXPECT_EQ(f.iFirstVarID, rows[i].first);
        ASSERT_NE(f.pItems, nullptr);
        total += f.iNumItems;
    }
    EXPECT_EQ(total, 3088);
}

TEST(Catalogue, FileOfEveryId) {
    for (int id = 0; id < kNumVarIds; ++id) {
        int expected = -1;
        for (int i = 0; i < kNumFiles; ++i)
            if (id >= sConfigItemList[i].iFirstVarID && id < sConfigItemList[i].iFirstVarID + sConfigItemList[i].iNumItems)
                expected = i;
        ASSERT_EQ(kFileOfVarId[id], expected) << "ID " << id;
    }
    EXPECT_EQ(kFileOfVarId[0], 0);
    EXPECT_EQ(kFileOfVarId[202], 0);
    EXPECT_EQ(kFileOfVarId[203], -1);
    EXPECT_EQ(kFileOfVarId[228], -1);
    EXPECT_EQ(kFileOfVarId[3073], 5);
    EXPECT_EQ(kFileOfVarId[3074], -1);
    EXPECT_EQ(kFileOfVarId[kMaxVarId], 9);
}

TEST(Catalogue, CountsByTypeGroupAndFlag) {
    int byType[kNumDataTypes] = {};
    int byGroup[4] = {};
    int reportable = 0;
    forEachEntry([&](int id, const DataAccessStruct& e) {
        ASSERT_LT(e.ucDataType, kNumDataTypes) << id;
        ASSERT_LT(e.ucAttrib, 4) << id;
        EXPECT_EQ(e.dwFlags & ~kReportFlag, 0u) << id;
        ++byType[e.ucDataType];
        ++byGroup[e.ucAttrib];
        reportable += e.reportable();
        if (kFileOfVarId[id] == 0) {
            EXPECT_EQ(e.ucAttrib, 0) << "volatile variable " << id;
        }
    });
    const int types[kNumDataTypes] = {2211, 208, 72, 409, 3, 183, 2};
    for (int t = 0; t < kNumDataTypes; ++t) EXPECT_EQ(byType[t], types[t]) << "type " << t;
    const int groups[4] = {215, 6, 716, 2151};
    for (int g = 0; g < 4; ++g) EXPECT_EQ(byGroup[g], groups[g]) << "group " << g;
    EXPECT_EQ(reportable, 66);
    EXPECT_TRUE(at(NW_TRACE_ENABLE).reportable());
    EXPECT_TRUE(at(UNIT_NAME).reportable());
    EXPECT_FALSE(at(UNIT_LOCATION).reportable());
}

// Every numeric default sits in the top bytes of its word; every other default
// is wDataSize bytes of text with zero padding, or all zero.
TEST(Catalogue, DefaultEncodingSweep) {
    forEachEntry([](int id, const DataAccessStruct& e) {
        SCOPED_TRACE(std::string("ID ") + std::to_string(id) + " " + e.szVarTag);
        if (isNumeric(e)) {
            ASSERT_EQ(e.wDataSize, e.ucDataType == DT_DWORD ? 4 : e.ucDataType + 1);
            if (e.wDataSize < 4) {
                EXPECT_EQ(e.oDefault.dwValue & (0xFFFFFFFFu >> (8 * e.wDataSize)), 0u);
            }
            return;
        }
        ASSERT_NE(e.oDefault.pData, nullptr);
        const uint8_t* p = e.oDefault.pData;
        const size_t len = strnlen(reinterpret_cast<const char*>(p), e.wDataSize);
        if (e.ucDataType == DT_STRING) {
            ASSERT_LT(len, e.wDataSize);
        } else {
            EXPECT_EQ(len, 0u);
        }
        for (size_t i = len; i < e.wDataSize; ++i) ASSERT_EQ(p[i], 0) << "byte " << i;
    });
}

TEST(Catalogue, NumericDefaults) {
    struct Case {
        int id;
        uint32_t value;
    };
    const Case cases[] = {
        {CM_FLAG, 0},                        {LINE_INTERFACE_E1_MF_SYNC_STATUS_1, 1},
        {CURRENT_CMS_PORT_ADDRESS, 9190},    {NETWORK_STATUS_ICON_STATE, 10},
        {UNIT_STATUS_ICON_STATE_SENT, 2},    {CURRENT_VLAN_PRIMARY_ID, 2},
        {CM_TEST123, 255},                   {NETWORK_LOG_FILTER, 3},
        {DHCP_SERVER_TIMEOUT, 60},           {MTU_VALUE, 1500},
        {CM_DSP_IP_ADDRESS, 2851996162u},    {CM_DSP_POWERPC_IP_ADDRESS, 2851996161u},
        {CM_DSP_RTCP_BUFFER_SIZE, 262144},   {CM_DSP_MAX_NO_OF_CSRCs, 4096},
        {CM_DSP_MAX_NONG711_CODECS, 15},     {CHANNEL_SIGNALLING_MODE_1_30, 16},
        {LINE_INTERFACE_IDLE_CODE_1, 127},   {D4_PLAR_CUSTOM_3_OFF_HOOK, 3584},
        {VXRTP_PAYLOAD_CODE, 96},            {VX_RTCP_PACKET_INTERVAL, 5000},
        {WAN_STREAM_JITTER_THRESHOLD_30, 160}, {CM_SIP_GATEWAY_CLOUD9_RING_TIMEOUT, 2000},
        {CM_SIP_TRUNK_CHANNEL_30B_GROUP, 1}, {CM_SIP_TRUNK_CHANNEL_1_PACKET_LENGTH, 20},
        {ENET_MODE_1, 0},                    {ENET_MODE_2, 5},
        {ENET_FAILOVER_DELAY, 1000},         {ICS_MCC_DATA_PORT, 8000},
        {RED_GW_PORT, 7710},                 {MTFIF_LOG_FILTER, 8389475},
        {CM_MTFIF_SIP_FILTER_RTP_BASE_PORT, 55000}, {TIMEZONE_ENUM, 255},
        {WEB_PASSWORD_TIMEOUT, 30},          {LAST_DATE_TIME, 0},
    };
    for (const Case& c : cases) EXPECT_EQ(numericDefault(at(c.id)), c.value) << at(c.id).szVarTag;
    EXPECT_EQ(at(CM_TEST123).oDefault.dwValue, 0xFF000000u);
    EXPECT_EQ(at(DHCP_SERVER_TIMEOUT).oDefault.dwValue, 0x003C0000u);
    // One even RTP port per recording stream, the odd one after it left for RTCP.
    for (int n = 0; n < 30; ++n)
        EXPECT_EQ(numericDefault(at(CM_DSP_VOICE_RECORDING_STREAM_1_PORT + n)), 10000u + 2 * n);
}

// Rows whose default lies outside its bounds, or whose bounds are inverted.
TEST(Catalogue, RuleBreakingRowsKept) {
    struct Case {
        int id;
        uint32_t min, max, value;
    };
    const Case cases[] = {
        {CURRENT_IP4_SUBNET_MASK, 0xFF000000u, 0xFFFFFFFFu, 0},
        {CURRENT_FILE_TRANSFER_PROTOCOL, 1, 2, 0},
        {CM_TEST_TRIGGER_UPDATE_CRYPTO, 0, 30, 255},
        {CMSIF_LOG_FILTER, 0, 255, 0x80100005u},
        {CMS_SERVER_IP_ADDRESS_1, 0x01000000u, 0xDFFFFFFFu, 0},
        {CMS_SERVER_IP_ADDRESS_2, 0x01000000u, 0xDFFFFFFFu, 0},
        {DNS_SERVER, 0x01000000u, 0xDFFFFFFFu, 0},
        {DNS_SERVER_SECONDARY, 0x01000000u, 0xDFFFFFFFu, 0},
        {IP_ADDRESS, 0x01000000u, 0xDFFFFFFFu, 0},
        {GATEWAY_ROUTER, 0x01000000u, 0xDFFFFFFFu, 0},
        {SUBNET_MASK, 0xFF000000u, 0xFFFFFFFFu, 0},
        {FILE_TRANSFER_ALLOWED_PROTOCOL, 3, 2, 3},
    };
    for (const Case& c : cases) {
        const DataAccessStruct& e = at(c.id);
        SCOPED_TRACE(e.szVarTag);
        EXPECT_EQ(e.dwMin, c.min);
        EXPECT_EQ(e.dwMax, c.max);
        EXPECT_EQ(numericDefault(e), c.value);
    }
}

TEST(Catalogue, NonNumericBounds) {
    forEachEntry([](int id, const DataAccessStruct& e) {
        if (isNumeric(e)) return;
        SCOPED_TRACE(std::string("ID ") + std::to_string(id) + " " + e.szVarTag);
        EXPECT_EQ(e.dwMin, 0u);
        switch (e.ucDataType) {
            case DT_STRING: EXPECT_EQ(e.dwMax, e.wDataSize - 1u); break;
            case DT_PASSWORD: EXPECT_EQ(e.wDataSize, 130); EXPECT_EQ(e.dwMax, 129u); break;
            case DT_OCTET_STRING: EXPECT_EQ(e.dwMax, e.wDataSize); break;
            case DT_IPADDR: EXPECT_EQ(e.wDataSize, 20); EXPECT_EQ(e.dwMax, 0u); break;
        }
    });
    EXPECT_EQ(at(CURRENT_FILE_TRANSFER_USERNAME).ucDataType, DT_PASSWORD);
    EXPECT_EQ(at(SNMP_V3_AUTH_PASSWORD).ucDataType, DT_STRING);
    EXPECT_EQ(at(SYSTEM_RESERVED_OCTETS).ucDataType, DT_OCTET_STRING);
}

TEST(Catalogue, TextDefaults) {
    auto text = [](int id) { return std::string(reinterpret_cast<const char*>(at(id).oDefault.pData)); };
    const std::pair<int, const char*> cases[] = {
        {SOFTWARE_VERSION, "Unknown"},         {DHCP_VENDOR_CLASS_ID, "Corvane_Suite"},
        {SNMP_READ_COMMUNITY, "vortex"},       {SNMP_READ_COMMUNITY_20, "vortex"},
        {CM_DSP_DIALTONE_COUNTRY, "uk"},       {CM_DSP_DEFAULT_ETHERNET_INTERFACE, "eth0"},
        {MTFIF_NSL_LOG_FILENAME_SP3, "Sp3Log.txt"}, {TIMEZONE, "Europe/London"},
        {UNIT_NAME, "Unknown"},                {CURRENT_USER_ID, "0000"},
        {VX_DEVICE_TYPE, "Zr440"},             {VX_REGION_ID, "-1"},
        {ICS_LOCATION, "LOCAL"},               {CURRENT_DOMAIN_NAME, ""},
    };
    for (const auto& [id, value] : cases) EXPECT_EQ(text(id), value) << at(id).szVarTag;
    for (int n = 1; n <= 30; ++n) {
        EXPECT_EQ(text(GROUP_LABEL_1 + n - 1), "Group " + std::to_string(n));
        EXPECT_EQ(text(DYN_GROUP_LABEL_1 + n - 1), "Reserved Dynamic Call");
    }
}

// The generated constants name the entry at their position.
TEST(Catalogue, ConstantsMatchTags) {
    struct Case {
        int id;
        const char* tag;
    };
#define CASE(x) {x, #x}
    const Case cases[] = {
        CASE(CM_FLAG), CASE(CURRENT_CMS_SERVER_IP_ADDRESS_2), CASE(CURRENT_CMS_HOME_IP_ADDRESS_2),
        CASE(CM_TEST123), CASE(MAC1_ADDRESS), CASE(SYSTEM_RESERVED_OCTETS),
        CASE(PRE_UPGRADE_SOFTWARE_VERSION), CASE(SNMP_READ_COMMUNITY_2), CASE(IP4_SNMP_MGR_20),
        CASE(IP6_SNMP_MGR_20), CASE(CM_DSP_MAX_NO_OF_CSRCs), CASE(CM_DSP_SYNC_ISSUE_COUNT),
        CASE(CHANNEL_GROUP_1_1), CASE(CHANNEL_SIGNALLING_MODE_1_30), CASE(TSTACK_LOG_FILTER),
        CASE(CM_SIP_TRUNK_CHANNEL_1B_SIP_SERVER), CASE(CM_SIP_TRUNK_CHANNEL_30B_REDUNDANCY),
        CASE(SYNC_ISSUE_COUNT_INTERVAL), CASE(MTFIF_WD_ENABLE), CASE(RED_GW_HEARTBEAT_TIME),
        CASE(CM_SIP_REINVITE_TIMER), CASE(UNIT_NAME), CASE(LAST_DATE_TIME),
    };
#undef CASE
    for (const Case& c : cases) EXPECT_STREQ(at(c.id).szVarTag, c.tag) << "ID " << c.id;
    EXPECT_EQ(CM_FLAG, 0);
    EXPECT_EQ(SYSTEM_RESERVED_OCTETS, 225);
    EXPECT_EQ(CM_SIP_TRUNK_CHANNEL_1_SIP_SERVER, 1793);
    EXPECT_EQ(CM_SIP_TRUNK_CHANNEL_1B_SIP_SERVER, 1794);
    EXPECT_EQ(CM_SIP_TRUNK_CHANNEL_30B_REDUNDANCY, 3052);
    EXPECT_EQ(UNIT_NAME, 3254);
    EXPECT_EQ(LAST_DATE_TIME, kMaxVarId);
}

TEST(Catalogue, NamesUniqueAndWellFormed) {
    std::set<std::string> seen;
    forEachEntry([&](int id, const DataAccessStruct& e) {
        const std::string name = e.szVarTag;
        EXPECT_TRUE(seen.insert(name).second) << "duplicate " << name;
        // Upper-case words joined by single underscores; one tag keeps a
        // lower-case letter of its own.
        bool ok = !name.empty() && name.front() != '_' && name.back() != '_' &&
                  name.find("__") == std::string::npos;
        for (char ch : name) ok = ok && ((ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '_');
        EXPECT_TRUE(ok || name == "CM_DSP_MAX_NO_OF_CSRCs") << "ID " << id << " " << name;
    });
    EXPECT_EQ(seen.size(), 3088u);
}

}  // namespace
}  // namespace cm::catalogue
