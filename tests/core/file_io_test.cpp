// Whole-file writes that replace a file only once the new one is complete.
#include "core/file_io.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace korvel {
namespace {

TEST(FileIo, AnEmptyWriteReplacesTheFileWithAnEmptyOne) {
    std::string path = ::testing::TempDir() + "korvel_file_io_empty.bin";
    std::string error;
    ASSERT_TRUE(writeFileAtomically(path, {1, 2, 3}, error)) << error;
    ASSERT_TRUE(writeFileAtomically(path, {}, error)) << error;
    std::vector<std::uint8_t> bytes{9};
    ASSERT_TRUE(readFileBytes(path, bytes));
    EXPECT_TRUE(bytes.empty());
    std::remove(path.c_str());
}

TEST(FileIo, AFailedWriteLeavesTheOldFileWhole) {
    std::string path = ::testing::TempDir() + "korvel_file_io_keep.bin";
    std::string error;
    ASSERT_TRUE(writeFileAtomically(path, {1, 2, 3}, error)) << error;
    setWriteFailureAfterBytesForTesting(1);
    EXPECT_FALSE(writeFileAtomically(path, {4, 5, 6, 7}, error));
    setWriteFailureAfterBytesForTesting(-1);
    EXPECT_EQ(error, "No space left on device");
    std::vector<std::uint8_t> bytes;
    ASSERT_TRUE(readFileBytes(path, bytes));
    EXPECT_EQ(bytes, (std::vector<std::uint8_t>{1, 2, 3}));
    std::remove(path.c_str());
}

}  // namespace
}  // namespace korvel
