// KLBC images: layout, round trip, and every reading message.
#include "lua_test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

namespace korvel::lua::testing {
namespace {

LuaBytecode bytes(std::initializer_list<int> values) {
    LuaBytecode image;
    for (int value : values) image.push_back(static_cast<std::uint8_t>(value));
    return image;
}

TEST(Bytecode, LayoutIsHeaderNameSource) {
    LuaVM vm;
    LuaBytecode image = vm.compileScript("return 1", "ab");
    // "KLBC", version 1, name length 2, "ab", source length 8, "return 1"
    LuaBytecode expected = bytes({'K', 'L', 'B', 'C', 1, 0, 0, 0, 2, 0, 0, 0, 'a', 'b', 8, 0, 0, 0});
    for (char c : std::string("return 1")) expected.push_back(static_cast<std::uint8_t>(c));
    EXPECT_EQ(image, expected);
}

TEST(Bytecode, RunsLikeTheSource) {
    LuaVM vm;
    LuaResult result = vm.runBytecode(vm.compileScript("return 2 + 3", "sum"));
    ASSERT_TRUE(result.success) << result.error;
    EXPECT_EQ(result.value.asInteger(), 5);
    result = runLuaBytecode(vm, vm.compileScript("error('x')", "named"));
    EXPECT_EQ(result.error, "named:1: x");
    result = vm.runBytecode(vm.compileScript("error('x')", ""));
    EXPECT_EQ(result.error, "<lua-bytecode>:1: x");
}

TEST(Bytecode, CompileRefusesSyntaxErrors) {
    LuaVM vm;
    EXPECT_THROW(vm.compileScript("x = (", "bad"), std::exception);
    std::string path = ::testing::TempDir() + "korvel_bad.klbc";
    std::remove(path.c_str());
    std::string error;
    EXPECT_FALSE(vm.writeBytecodeFile("x = (", "bad", path, &error));
    EXPECT_EQ(error, "bad:1:6: expected expression");
    EXPECT_FALSE(std::ifstream(path).good());
}

struct MalformedImage {
    const char* name;
    LuaBytecode image;
    const char* message;
};

class MalformedImages : public ::testing::TestWithParam<MalformedImage> {};

TEST_P(MalformedImages, FailWithoutTouchingTheVm) {
    LuaVM vm;
    LuaResult result = vm.runBytecode(GetParam().image);
    EXPECT_FALSE(result.success);
    EXPECT_EQ(result.error, GetParam().message) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(Reader, MalformedImages, ::testing::Values(
    // 7 bytes: shorter than magic and version
    MalformedImage{"seven bytes", bytes({'K', 'L', 'B', 'C', 1, 0, 0}), "bytecode file is too small"},
    MalformedImage{"empty", bytes({}), "bytecode file is too small"},
    MalformedImage{"wrong magic", bytes({'K', 'S', 'B', 'C', 1, 0, 0, 0}), "invalid KorvelLua bytecode header"},
    MalformedImage{"version 2", bytes({'K', 'L', 'B', 'C', 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), "unsupported KorvelLua bytecode version"},
    MalformedImage{"no name length", bytes({'K', 'L', 'B', 'C', 1, 0, 0, 0, 5, 0}), "bytecode is truncated"},
    // name length 1000 in a 20-byte file
    MalformedImage{"name too long", bytes({'K', 'L', 'B', 'C', 1, 0, 0, 0, 0xE8, 0x03, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}),
                   "bytecode string exceeds file size"},
    MalformedImage{"no source length", bytes({'K', 'L', 'B', 'C', 1, 0, 0, 0, 1, 0, 0, 0, 'n', 3, 0}), "bytecode is truncated"},
    MalformedImage{"source past end", bytes({'K', 'L', 'B', 'C', 1, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 'x'}),
                   "bytecode string exceeds file size"}));

TEST(BytecodeFiles, WriteAndRun) {
    LuaVM vm;
    std::string path = ::testing::TempDir() + "korvel_ok.klbc";
    std::string error;
    ASSERT_TRUE(vm.writeBytecodeFile("answer = 42\nreturn answer", "file", path, &error)) << error;
    LuaResult result = vm.runBytecodeFile(path);
    ASSERT_TRUE(result.success) << result.error;
    EXPECT_EQ(result.value.asInteger(), 42);
    result = runLuaScriptFromBytecodeFile(vm, path);
    EXPECT_TRUE(result.success);
    std::remove(path.c_str());

    result = runLuaBytecodeFile(vm, "/nonexistent/x.klbc");
    EXPECT_EQ(result.error, "failed to open file: /nonexistent/x.klbc");
    EXPECT_FALSE(vm.writeBytecodeFile("x = 1", "c", "/nonexistent-dir/out.klbc", &error));
    EXPECT_EQ(error, "failed to open file for writing: /nonexistent-dir/out.klbc");
}

} // namespace
} // namespace korvel::lua::testing
