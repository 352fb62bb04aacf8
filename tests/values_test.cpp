// Values as text, stored addresses and password records, through the C API
// of a started library; stored bytes are checked in the data file itself.
#include <arpa/inet.h>
#include <openssl/evp.h>

#include "support/test_support.h"

namespace {

// An independent encipherment with the device's key and IV: the record a
// password must be stored as.
std::string expectedRecord(const std::string& plain) {
    const unsigned char key[] = "m4k82;7150plrt9e33x##zqwv-4411hn";
    const unsigned char iv[] = "lakeside8824tmqq";
    unsigned char out[160];
    int n = 0, tail = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(ctx, EVP_aes_256_cbc(), nullptr, key, iv);
    EVP_EncryptUpdate(ctx, out, &n, reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(ctx, out + n, &tail);
    EVP_CIPHER_CTX_free(ctx);
    std::string rec(130, '\0');
    rec[0] = static_cast<char>((n + tail) >> 8);
    rec[1] = static_cast<char>((n + tail) & 0xFF);
    rec.replace(2, static_cast<size_t>(n + tail), reinterpret_cast<char*>(out), static_cast<size_t>(n + tail));
    return rec;
}

std::string hex(const std::string& bytes) { return cmtest::hex(bytes.data(), bytes.size()); }

class Values : public cmtest::LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(CM_init(1), 0);
    }
    // The value bytes of a variable's record, as they stand in its data file.
    std::string stored(int32_t id) {
        cm::catalogue::Location loc{};
        EXPECT_TRUE(cm::catalogue::locate(id, loc));
        const auto& e = cmtest::entryOf(id);
        return cmtest::readFile(cm::storage::pathOf(loc.iFileIndex)).substr(e.recordOffset() + 4, e.wDataSize);
    }
    std::string bare(int32_t id) {
        char text[CM_VALUE_TEXT_SIZE];
        EXPECT_EQ(CM_Get_Var_Value_As_String(id, text), 0);
        return text;
    }
    std::string labelled(int32_t id) {
        char text[CM_VALUE_TEXT_SIZE];
        EXPECT_EQ(CM_GetDataItemToString(id, text), 0);
        return text;
    }
};

// Each parser case: the text, the result, then the bare and labelled forms.
TEST_F(Values, ParsedTextsAreStoredAndPrintedBack) {
    struct Case {
        int32_t id;
        const char* text;
        int rc;
        std::string bareForm, labelledForm;
    };
    const std::string octets = "AB"s + std::string(188, '\0');
    const Case cases[] = {
        {VXRTP_CODEC_1, "300", 1, "44", "OCTET: 44 (unsigned 44) (0x2C)"},  // no bounds check, 8 bits kept
        {VXRTP_CODEC_1, "-1", 1, "255", "OCTET: 255 (unsigned 255) (0xFF)"},
        {VXRTP_CODEC_1, "12abc", 1, "12", "OCTET: 12 (unsigned 12) (0x0C)"},
        {CURRENT_CMS_PORT_ADDRESS, "65537", 1, "1", "WORD: 1 (unsigned 1) (0x0001)"},
        {CURRENT_CMS_PORT_ADDRESS, "99999999999", 1, "65535", "WORD: 65535 (unsigned 65535) (0xFFFF)"},
        {CURRENT_IP4_SUBNET_MASK, "0x10", 1, "16", "DWORD: 16 (unsigned 16) (0x00000010)"},
        {CURRENT_IP4_SUBNET_MASK, "010", 1, "8", "DWORD: 8 (unsigned 8) (0x00000008)"},
        {CURRENT_IP4_SUBNET_MASK, "-2", 1, "4294967294", "DWORD: -2 (unsigned 4294967294) (0xFFFFFFFE)"},
        {CURRENT_IP4_SUBNET_MASK, "0x123456789", 1, "4294967295", "DWORD: -1 (unsigned 4294967295) (0xFFFFFFFF)"},
        // Blanks after the sign: refused, nothing written (strtoul would negate the 5).
        {CURRENT_IP4_SUBNET_MASK, "- 5", -1, "4294967295", "DWORD: -1 (unsigned 4294967295) (0xFFFFFFFF)"},
        {CURRENT_IP4_SUBNET_MASK, "+-5", 1, "0", "DWORD: 0 (unsigned 0) (0x00000000)"},  // a second sign: no number
        {CURRENT_DOMAIN_NAME, "a&amp;b&amp;&lt;", 1, "a&b&&lt;", "a&b&&lt;"},
        {CURRENT_DOMAIN_NAME, "a&b&&lt;", 0, "a&b&&lt;", "a&b&&lt;"},
        // Octet strings take the text's own bytes, unlike their "0x" bare form.
        {WAN_STREAMS_ERRCODE, "AB", 1, hex(octets), hex(octets)},
        {CURRENT_IP4_ADDRESS, "192.0.2.1", 1, "192.0.2.1", "192.0.2.1"},
        {CURRENT_IP4_ADDRESS, "2001:db8::1", 1, "2001:db8::1", "2001:db8::1"},
        {CURRENT_IP4_ADDRESS, "not an address", 1, "", ""},  // warned; stores no address
        {CURRENT_IP4_ADDRESS, "", 0, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.id) + " <- " + c.text);
        EXPECT_EQ(CM_PutDataItemFromString(c.id, c.text), c.rc);
        EXPECT_EQ(bare(c.id), c.bareForm);
        EXPECT_EQ(labelled(c.id), c.labelledForm);
    }
    EXPECT_EQ(stored(WAN_STREAMS_ERRCODE), octets);
    // A parsed value is written under the file lock, which also sets the CRC word.
    const std::string file0 = cm::storage::pathOf(0);
    cmtest::rewrite(file0, cmtest::readFile(file0).replace(2, 2, "\xAB\xCD"));
    ASSERT_EQ(CM_PutDataItemFromString(CURRENT_IP4_SUBNET_MASK, "77"), 1);
    EXPECT_EQ(cmtest::readFile(file0).substr(2, 2), "\x12\x34");
    EXPECT_EQ(sink.count("Failed to understand IP address of \"not an address\""), 1);
    EXPECT_EQ(sink.count("Failed to understand IP address of \"\""), 0);
}

// IPv6 keeps family and port; an unknown family is refused and stored as
// "no address", and one found stored cannot be read.
TEST_F(Values, AddressesHaveAFixedStoredLayout) {
    sockaddr_in6 v6{.sin6_family = AF_INET6, .sin6_port = htons(5060), .sin6_flowinfo = 0, .sin6_addr = {}, .sin6_scope_id = 0};
    inet_pton(AF_INET6, "2001:db8::1", &v6.sin6_addr);
    ASSERT_EQ(CM_Set_Variable(CURRENT_IP4_ADDRESS, &v6), 0);
    EXPECT_EQ(stored(CURRENT_IP4_ADDRESS), "\x00\x0A\x13\xC4"s + std::string(reinterpret_cast<const char*>(&v6.sin6_addr), 16));
    sockaddr_in6 back{};
    ASSERT_EQ(CM_Get_Variable(CURRENT_IP4_ADDRESS, &back), 0);
    EXPECT_EQ(std::memcmp(&back, &v6, sizeof v6), 0);

    sockaddr bad{.sa_family = 7, .sa_data = {}};
    EXPECT_EQ(CM_Set_Variable(CURRENT_IP4_ADDRESS, &bad), -1);
    EXPECT_EQ(stored(CURRENT_IP4_ADDRESS), std::string(ipv6_addr_undefined, ipv6_addr_undefined + CM_IPADDR_SIZE));
    EXPECT_TRUE(sink.contains("Invalid IP address value for CM variable ID = 5"));
    uint8_t family7[CM_IPADDR_SIZE] = {0, 7};
    ASSERT_EQ(CM_PutDataItem(CURRENT_IP4_ADDRESS, family7), 1);
    EXPECT_EQ(CM_Get_Variable(CURRENT_IP4_ADDRESS, &back), CM_ERR_INVALID);
    EXPECT_TRUE(sink.contains("Invalid stored IP address in CM var ID=5"));
    char text[CM_VALUE_TEXT_SIZE];
    EXPECT_EQ(CM_Get_Var_Value_As_String(CURRENT_IP4_ADDRESS, text), -1);
}

TEST_F(Values, PasswordsMatchAnIndependentEncipherment) {
    const int32_t id = CURRENT_FILE_TRANSFER_PASSWORD;
    char plain[CM_PASSWD_TEXT_SIZE];
    EXPECT_EQ(CM_Get_Passwd(id, plain), 0);  // the all-zero default: no password
    EXPECT_STREQ(plain, "");
    for (size_t len : {0u, 15u, 16u, 127u}) {
        SCOPED_TRACE(len);
        const std::string pw(len, static_cast<char>('a' + len % 26));
        ASSERT_EQ(CM_Set_Variable(id, pw.c_str()), 0);
        const std::string rec = expectedRecord(pw);
        EXPECT_EQ(stored(id), rec);
        uint8_t raw[CM_PASSWD_RECORD_SIZE];
        ASSERT_EQ(CM_GetDataItemPasswd(id, raw), 0);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(raw), sizeof raw), rec);
        ASSERT_EQ(CM_Get_Passwd(id, plain), 0);
        EXPECT_EQ(plain, pw);
        // The bare form is the whole record in hex and parses back unchanged.
        EXPECT_EQ(bare(id), hex(rec));
        CM_PutDataItemFromString(CURRENT_FILE_TRANSFER_PASSWORD - 1, bare(id).c_str());
        EXPECT_EQ(stored(id - 1), rec);
    }
    EXPECT_EQ(stored(id).substr(0, 2), "\x00\x80"s);  // 127 bytes: 128 of ciphertext

    const std::string recHex = bare(id);
    EXPECT_EQ(CM_PutDataItemFromString(id, recHex.substr(0, 261).c_str()), -1);  // plain of 261: too long
    EXPECT_EQ(CM_PutDataItemFromString(id, (recHex.substr(0, 260) + "zz").c_str()), -1);
    EXPECT_EQ(CM_PutDataItemFromString(id, "secret"), 0);  // plain text is enciphered
    ASSERT_EQ(CM_Get_Passwd(id, plain), 0);
    EXPECT_STREQ(plain, "secret");

    uint8_t len129[CM_PASSWD_RECORD_SIZE] = {0, 129};
    ASSERT_EQ(CM_PutDataItem(id, len129), 1);
    EXPECT_EQ(CM_Get_Passwd(id, plain), CM_ERR_INVALID);
    uint8_t badPadding[CM_PASSWD_RECORD_SIZE] = {0, 16, 1, 2, 3};
    ASSERT_EQ(CM_PutDataItem(id, badPadding), 1);
    EXPECT_EQ(CM_Get_Passwd(id, plain), CM_ERR_INVALID);
    EXPECT_STREQ(plain, "");
    EXPECT_TRUE(sink.contains("**ERROR:vxdecrypt:../src/configparam.c:  Failed EVP_DecryptFinal_ex"));
    EXPECT_EQ(CM_Get_Passwd(UNIT_NAME, plain), CM_ERR_INVALID);
    EXPECT_EQ(CM_GetDataItemPasswd(UNIT_NAME, len129), -1);
}

}  // namespace
