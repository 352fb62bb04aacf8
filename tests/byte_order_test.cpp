// Data files are big-endian on every host.  These checks pin the byte layout
// of the load/store helpers, and make sure the build really runs with the
// byte order of its target processor: on the s390x leg under qemu that is
// big-endian, so a passing suite there was not silently run little-endian.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstring>

#include "storage/byte_order.h"

namespace cm::storage {
namespace {

TEST(ByteOrder, RunsWithTheTargetProcessorsByteOrder) {
#if !defined(CM_TEST_EXPECT_BIG_ENDIAN)
    GTEST_SKIP() << "byte order of this processor not listed in tests/CMakeLists.txt";
#else
    const uint32_t v = 0x0A0B0C0D;
    unsigned char b[4];
    std::memcpy(b, &v, 4);
    if (CM_TEST_EXPECT_BIG_ENDIAN) {
        EXPECT_EQ(std::endian::native, std::endian::big);
        EXPECT_EQ(b[0], 0x0A);
        EXPECT_EQ(b[3], 0x0D);
    } else {
        EXPECT_EQ(std::endian::native, std::endian::little);
        EXPECT_EQ(b[0], 0x0D);
        EXPECT_EQ(b[3], 0x0A);
    }
#endif
}

TEST(ByteOrder, StoresMostSignificantByteFirst) {
    unsigned char buf[7] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    storeBe32(buf + 1, 0x12345678u);  // deliberately unaligned
    storeBe16(buf + 5, 0xA1B2u);
    const unsigned char want[7] = {0xEE, 0x12, 0x34, 0x56, 0x78, 0xA1, 0xB2};
    EXPECT_EQ(0, std::memcmp(buf, want, sizeof buf));
}

TEST(ByteOrder, LoadsMostSignificantByteFirst) {
    const unsigned char buf[7] = {0x00, 0x80, 0x00, 0x00, 0x01, 0xFF, 0x01};
    EXPECT_EQ(loadBe32(buf + 1), 0x80000001u);
    EXPECT_EQ(loadBe16(buf + 5), 0xFF01u);
}

}  // namespace
}  // namespace cm::storage
