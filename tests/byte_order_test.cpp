// The build runs with its target's byte order and word size, so a passing
// big-endian leg really ran big-endian code.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>

TEST(ByteOrder, RunsWithTheTargetProcessorsByteOrderAndWordSize) {
#if !defined(CM_TEST_EXPECT_BIG_ENDIAN)
    GTEST_SKIP() << "byte order of this processor not listed in tests/CMakeLists.txt";
#else
    const bool big = CM_TEST_EXPECT_BIG_ENDIAN;
    EXPECT_EQ(std::endian::native, big ? std::endian::big : std::endian::little);
    // The byte the running processor actually stores first.
    volatile uint32_t word = 0x01020304;
    EXPECT_EQ(reinterpret_cast<const volatile uint8_t*>(&word)[0], big ? 0x01 : 0x04);

    EXPECT_EQ(sizeof(void*) * 8, unsigned{CM_TEST_EXPECT_WORD_BITS});
    EXPECT_EQ(sizeof(long) * 8, unsigned{CM_TEST_EXPECT_WORD_BITS});
    EXPECT_EQ(sizeof(size_t) * 8, unsigned{CM_TEST_EXPECT_WORD_BITS});
#endif
}
