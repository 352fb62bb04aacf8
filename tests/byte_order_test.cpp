// The build runs with the byte order of its target processor: on the s390x
// leg under qemu that is big-endian, so a passing suite there was not
// silently run little-endian.  (The file layout itself is checked byte by
// byte by the storage tests.)
#include <gtest/gtest.h>

#include <bit>

TEST(ByteOrder, RunsWithTheTargetProcessorsByteOrder) {
#if !defined(CM_TEST_EXPECT_BIG_ENDIAN)
    GTEST_SKIP() << "byte order of this processor not listed in tests/CMakeLists.txt";
#else
    EXPECT_EQ(std::endian::native, CM_TEST_EXPECT_BIG_ENDIAN ? std::endian::big : std::endian::little);
#endif
}
