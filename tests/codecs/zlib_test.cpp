// The zlib inflater and compressor: streams made by zlib itself decode; broken streams are
// refused with a reason; the compressor round-trips and really compresses.
#include "codec_test_support.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using Bytes = std::vector<std::uint8_t>;

bool inflate(const Bytes& stream, Bytes& out, std::string& error, std::size_t limit = 1 << 20) {
    return wm::png::zlibDecompress(stream.data(), stream.size(), limit, out, error);
}

// 200 letters from "aaaabbc" compressed by zlib at level 9: one dynamic-Huffman block.
const Bytes kDynamicStream = {
    0x78, 0xda, 0x45, 0x8e, 0x81, 0x11, 0x00, 0x20, 0x08, 0x02, 0x67, 0x05, 0xf6, 0xdf, 0x21, 0x94, 0xa8, 0xea, 0xa4,
    0x7b, 0x83, 0x04, 0x40, 0x40, 0x1c, 0x71, 0xc9, 0x2a, 0xa1, 0xd9, 0x42, 0x2a, 0xd8, 0xbb, 0x8d, 0xa9, 0xf1, 0x58,
    0x85, 0x98, 0xb5, 0x2f, 0x43, 0x7b, 0x74, 0x23, 0x45, 0x4a, 0x0d, 0x09, 0x66, 0xdc, 0x8e, 0xd3, 0xff, 0xff, 0x06,
    0xad, 0xea, 0x8d, 0x33, 0x03, 0x11, 0x6f, 0xc4, 0x6d, 0xb2, 0x77, 0x67, 0x1c, 0xe9, 0x01, 0x4c, 0x29};
const char* const kDynamicText =
    "aaabaacbaababaaaaaaaabaacbaabbbabbaaaabcaaaabababcbaabbbaaabbababaabbacaabaaaacabcaababaabaabaabaacaaaaabacbbccaab"
    "ababcaacaaabbaabbabbbcaababaaaaabaaaacaabaaacaaaaabaacacbabaabaaaaaaabaaacbaaaaaababba";

struct ValidStream {
    const char* name;
    Bytes stream;
    std::string expected;
};

class ZlibValidStreams : public ::testing::TestWithParam<ValidStream> {};

TEST_P(ZlibValidStreams, DecodeToTheOriginalBytes) {
    Bytes out;
    std::string error;
    ASSERT_TRUE(inflate(GetParam().stream, out, error)) << GetParam().name << ": " << error;
    EXPECT_EQ(std::string(out.begin(), out.end()), GetParam().expected) << GetParam().name;
}

INSTANTIATE_TEST_SUITE_P(
    ZlibMade, ZlibValidStreams,
    ::testing::Values(
        // 78 01: header; 01: final stored block; 0003 fffc: LEN and its complement; "abc"; Adler-32.
        ValidStream{"stored", {0x78, 0x01, 0x01, 0x03, 0x00, 0xfc, 0xff, 'a', 'b', 'c', 0x02, 0x4d, 0x01, 0x27}, "abc"},
        // Fixed Huffman with a distance-3 match that overlaps its own output.
        ValidStream{"fixed with overlapping match",
                    {0x78, 0x01, 0x4b, 0x4c, 0x4a, 0x4e, 0x44, 0x45, 0x8a, 0x00, 0x48, 0x82, 0x07, 0x06},
                    "abcabcabcabcabcabc!"},
        ValidStream{"dynamic", kDynamicStream, kDynamicText}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

struct BrokenStream {
    const char* name;
    Bytes stream;
    const char* message;  // part of the error text
};

Bytes withByte(Bytes bytes, std::size_t index, std::uint8_t value) {
    bytes[index] = value;
    return bytes;
}

class ZlibBrokenStreams : public ::testing::TestWithParam<BrokenStream> {};

TEST_P(ZlibBrokenStreams, AreRefusedWithAReason) {
    Bytes out = {42};
    std::string error;
    EXPECT_FALSE(inflate(GetParam().stream, out, error)) << GetParam().name;
    EXPECT_NE(error.find(GetParam().message), std::string::npos) << GetParam().name << ": " << error;
    EXPECT_EQ(out, Bytes{42}) << "output must stay untouched";
}

const Bytes kStored = {0x78, 0x01, 0x01, 0x03, 0x00, 0xfc, 0xff, 'a', 'b', 'c', 0x02, 0x4d, 0x01, 0x27};

INSTANTIATE_TEST_SUITE_P(
    Hand, ZlibBrokenStreams,
    ::testing::Values(
        BrokenStream{"empty", {}, "too short"},
        BrokenStream{"method 7", withByte(kStored, 0, 0x77), "not a DEFLATE"},
        BrokenStream{"header check", withByte(kStored, 1, 0x02), "header check"},
        BrokenStream{"preset dictionary", {0x78, 0xbb, 0, 0, 0, 0}, "dictionar"},
        BrokenStream{"block type 3", {0x78, 0x01, 0x07, 0, 0, 0, 0}, "invalid block type"},
        BrokenStream{"stored length complement", withByte(kStored, 5, 0xfd), "complement"},
        BrokenStream{"stored block cut short", Bytes(kStored.begin(), kStored.begin() + 9), "truncated"},
        BrokenStream{"Adler-32 wrong", withByte(kStored, 13, 0x28), "Adler-32"},
        BrokenStream{"Adler-32 missing", Bytes(kStored.begin(), kStored.begin() + 11), "Adler-32"},
        BrokenStream{"dynamic cut short", Bytes(kDynamicStream.begin(), kDynamicStream.begin() + 30), "truncated"},
        // Fixed block: literal 'a' then length 3 at distance 2, before which there is one byte only.
        // Bits: 1 01 | 10010001 ('a') | 0000001 (257) | 00001 (distance 2) | 0000000 (end).
        BrokenStream{"distance before the start", {0x78, 0x01, 0x4b, 0x04, 0x42, 0x00, 0x00, 0x00, 0x00, 0x00}, "before the start"},
        // Dynamic header whose 19 code-length code lengths are all 1: over-subscribed.
        BrokenStream{"over-subscribed code",
                     {0x78, 0x01, 0x05, 0xe0, 0x93, 0x24, 0x49, 0x92, 0x24, 0x49, 0x92, 0x00, 0x00, 0x00, 0x00, 0x00},
                     "code-length code"}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

TEST(ZlibInflate, RefusesOutputBeyondTheLimit) {
    // The caller's limit bounds decompression bombs: a megabyte of zeros packs into about a
    // kilobyte, and asking for at most 1000 bytes of it must fail, not allocate the megabyte.
    const Bytes zeros(1 << 20, 0);
    const Bytes packed = wm::png::zlibCompress(zeros.data(), zeros.size());
    Bytes out;
    std::string error;
    EXPECT_FALSE(inflate(packed, out, error, 1000));
    EXPECT_NE(error.find("more data than expected"), std::string::npos) << error;
    EXPECT_TRUE(inflate(packed, out, error, zeros.size()));
    EXPECT_EQ(out, zeros);
}

struct RoundTripCase {
    const char* name;
    Bytes data;
    double largestRatio;  // compressed size over input size must not exceed this
};

Bytes randomBytes(std::size_t size, std::uint32_t seed, int alphabet) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random() % static_cast<std::uint32_t>(alphabet));
    return bytes;
}

Bytes repeatedText(std::size_t size) {
    const std::string text = "Korvel loads its images, sounds and scripts; the quick brown fox jumps over the lazy dog. ";
    Bytes bytes;
    while (bytes.size() < size) bytes.insert(bytes.end(), text.begin(), text.end());
    bytes.resize(size);
    return bytes;
}

class ZlibRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(ZlibRoundTrip, InflatesToTheInputAndCompresses) {
    const Bytes& data = GetParam().data;
    const Bytes packed = wm::png::zlibCompress(data.data(), data.size());
    Bytes out;
    std::string error;
    ASSERT_TRUE(inflate(packed, out, error, data.size())) << error;
    EXPECT_EQ(out, data);
    EXPECT_LE(double(packed.size()), GetParam().largestRatio * double(data.size()) + 16) << packed.size() << " bytes";
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, ZlibRoundTrip,
    ::testing::Values(RoundTripCase{"empty", {}, 0}, RoundTripCase{"one byte", {7}, 1},
                      // Regression (fuzz find): literals 144-255 of the fixed code were numbered as if
                      // the alphabet ended at 285, so 0xAA came back as 0xA6.
                      RoundTripCase{"fixed code literal above 143", {0x05, 0xaa, 0x8d}, 4},
                      RoundTripCase{"zeros", Bytes(300000, 0), 0.002},
                      RoundTripCase{"text", repeatedText(200000), 0.01},
                      // 16 random symbols: 4 bits a byte at best; zlib's level 9 gets 0.575.
                      RoundTripCase{"sixteen symbols", randomBytes(100000, 1, 16), 0.59},
                      // Incompressible: stored blocks keep the growth to a few bytes per 64 KiB.
                      RoundTripCase{"random", randomBytes(150000, 2, 256), 1.001},
                      // Unfiltered noisy RGBA; zlib's level 9 gets 0.82, with the 3-byte matches
                      // our compressor leaves out for speed.
                      RoundTripCase{"image pattern", codec_test::testPattern(300, 200, 3), 0.87}),
    [](const auto& info) {
        std::string name = info.param.name;
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
        return name;
    });

}  // namespace
