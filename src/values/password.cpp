#include "values/password.h"

#include <openssl/evp.h>

#include <cstring>

#include "log/log.h"
#include "platform/byte_order.h"

namespace cm::values {
namespace {

constexpr auto kLogModule = log::Module::ConfigParam;
constexpr int kFailed = -15;

// Fixed for every device: equal passwords must give equal records everywhere.
constexpr unsigned char kKey[33] = "m4k82;7150plrt9e33x##zqwv-4411hn";
constexpr unsigned char kIv[17] = "lakeside8824tmqq";

// Owns one cipher context for the length of a call.
struct CipherContext {
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    ~CipherContext() { EVP_CIPHER_CTX_free(ctx); }
    CipherContext() = default;
    CipherContext(const CipherContext&) = delete;
    CipherContext& operator=(const CipherContext&) = delete;
};

}  // namespace

int encipherPassword(const char* plain, uint8_t record[kPasswdRecordSize]) {
    constexpr const char* fn = "vxencrypt";
    std::memset(record, 0, kPasswdRecordSize);
    const std::size_t len = strnlen(plain, kPasswdMaxPlain + 1);
    if (len > kPasswdMaxPlain) return kFailed;

    CipherContext c;
    if (c.ctx == nullptr) {
        CM_LOG(log::kErr, fn, "Failed to create context\n");
        return kFailed;
    }
    if (EVP_EncryptInit_ex(c.ctx, EVP_aes_256_cbc(), nullptr, kKey, kIv) != 1) {
        CM_LOG(log::kErr, fn, "Failed EVP_EncryptInit_ex\n");
        return kFailed;
    }
    // At most 127 bytes in: at most 128 out in total, which the record holds.
    uint8_t* out = record + 2;
    int n = 0;
    if (EVP_EncryptUpdate(c.ctx, out, &n, reinterpret_cast<const unsigned char*>(plain), static_cast<int>(len)) != 1) {
        CM_LOG(log::kErr, fn, "Failed EVP_EncryptUpdate\n");
        return kFailed;
    }
    int tail = 0;
    if (EVP_EncryptFinal_ex(c.ctx, out + n, &tail) != 1) {
        CM_LOG(log::kErr, fn, "Failed EVP_EncryptFinal_ex\n");
        return kFailed;
    }
    const int total = n + tail;
    if (total < 1) return kFailed;
    platform::storeBe16(record, static_cast<uint16_t>(total));
    return 0;
}

int decipherPassword(const uint8_t record[kPasswdRecordSize], char* plain) {
    constexpr const char* fn = "vxdecrypt";
    plain[0] = '\0';
    const unsigned len = platform::loadBe16(record);
    if (len > kPasswdMaxCipher) return kFailed;
    if (len == 0) return 0;

    CipherContext c;
    if (c.ctx == nullptr) {
        CM_LOG(log::kErr, fn, "Failed to create context\n");
        return kFailed;
    }
    if (EVP_DecryptInit_ex(c.ctx, EVP_aes_256_cbc(), nullptr, kKey, kIv) != 1) {
        CM_LOG(log::kErr, fn, "Failed EVP_DecryptInit_ex\n");
        return kFailed;
    }
    // Deciphered on the stack, with the block of slack EVP may use, and only
    // then copied out: the caller's 128 bytes never see more than 127 + 1.
    unsigned char buf[kPasswdMaxCipher + 32];
    int n = 0;
    if (EVP_DecryptUpdate(c.ctx, buf, &n, record + 2, static_cast<int>(len)) != 1) {
        CM_LOG(log::kErr, fn, "Failed EVP_DecryptUpdate\n");
        return kFailed;
    }
    int tail = 0;
    if (EVP_DecryptFinal_ex(c.ctx, buf + n, &tail) != 1) {
        CM_LOG(log::kErr, fn, "Failed EVP_DecryptFinal_ex\n");
        return kFailed;
    }
    std::size_t total = static_cast<std::size_t>(n + tail);
    if (total > kPasswdMaxPlain) total = kPasswdMaxPlain;
    std::memcpy(plain, buf, total);
    plain[total] = '\0';
    OPENSSL_cleanse(buf, sizeof buf);
    return 0;
}

}  // namespace cm::values
