// Word reading of the settings file: bounded words, numbers, block headers.
#include "config/param_words.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace {

// Reads every word of bytes through ReadIniWord, with the stream position after each.
std::vector<std::pair<std::string, long>> AllWords(const std::string& bytes) {
    std::vector<std::pair<std::string, long>> words;
    FILE* f = fmemopen(const_cast<char*>(bytes.data()), bytes.size(), "r");
    if (!f) return words;
    char word[kTextMax];
    // The bound protects the test itself from a reader that never reaches the end.
    for (int i = 0; i < 1000 && ReadIniWord(f, word) == kIniWordOk; ++i) {
        words.emplace_back(word, ftell(f));
    }
    fclose(f);
    return words;
}

TEST(ParamWordsTest, WordsAreSplitOnAnyWhiteSpaceAndStopBeforeIt) {
    auto words = AllWords("  alpha\tbeta\n\n gamma  ");
    ASSERT_EQ(words.size(), 3u);
    EXPECT_EQ(words[0].first, "alpha");
    EXPECT_EQ(words[0].second, 7);  // just after "alpha", the tab not consumed
    EXPECT_EQ(words[1].first, "beta");
    EXPECT_EQ(words[1].second, 12);
    EXPECT_EQ(words[2].first, "gamma");
    EXPECT_EQ(words[2].second, 20);
    // A last word without white space after it ends at the end of the stream.
    auto last = AllWords("x [EndOfFile]");
    ASSERT_EQ(last.size(), 2u);
    EXPECT_EQ(last[1].first, "[EndOfFile]");
    EXPECT_EQ(last[1].second, 13);
    EXPECT_TRUE(AllWords("").empty());
    EXPECT_TRUE(AllWords(" \n\t ").empty());
}

TEST(ParamWordsTest, LongWordsAreConsumedWholeAndNeverSplit) {
    const std::string w63(63, 'a');
    const std::string w64(64, 'b');
    // A 200-character word whose tail looks like a structural word.
    const std::string w200 = std::string(187, 'c') + "[EndOfDevice]";
    auto words = AllWords(w63 + " " + w64 + "\n" + w200 + " next");
    ASSERT_EQ(words.size(), 4u);
    EXPECT_EQ(words[0].first, w63);
    EXPECT_EQ(words[1].first, kOverlongWord);
    EXPECT_EQ(words[1].second, 128);
    EXPECT_EQ(words[2].first, kOverlongWord);
    EXPECT_EQ(words[2].second, 129 + 200);
    EXPECT_EQ(words[3].first, "next");
    auto at_end = AllWords(w200);
    ASSERT_EQ(at_end.size(), 1u);
    EXPECT_EQ(at_end[0].first, kOverlongWord);
}

TEST(ParamWordsTest, BinaryGarbageEndsWithoutOverflow) {
    std::string garbage;
    for (int i = 0; i < 4096; ++i) garbage.push_back(static_cast<char>((i * 7919) & 0xFF));
    auto words = AllWords(garbage);
    EXPECT_FALSE(words.empty());
    EXPECT_LT(words.size(), 1000u);  // the reader reached the end by itself
    for (const auto& w : words) EXPECT_LT(w.first.size(), static_cast<size_t>(kTextMax));
}

// The one rule for numbers of the settings file and the command line: the leading number,
// as "%d" and "%x" read it, refused when it does not fit 32 bits.
TEST(ParamWordsTest, NumbersAreLeadingNumbersIn32Bits) {
    struct Case {
        const char* word;
        bool is_decimal;
        int32_t decimal;
        bool is_hex;
        uint32_t hex;
    } cases[] = {
        {"0", true, 0, true, 0},
        {"10", true, 10, true, 0x10},
        {"-1", true, -1, true, 0xFFFFFFFF},
        {"+7", true, 7, true, 7},
        {"2147483647", true, INT32_MAX, false, 0},
        {"-2147483648", true, INT32_MIN, false, 0},
        {"2147483648", false, 0, false, 0},
        {"-2147483649", false, 0, false, 0},
        {"99999999999999999999", false, 0, false, 0},
        {"FFFFFFFF", false, 0, true, 0xFFFFFFFF},
        {"1FFFFFFFF", true, 1, false, 0},
        {"-FFFFFFFF", false, 0, true, 1},
        {"2abc", true, 2, true, 0x2abc},
        {"12xyz", true, 12, true, 0x12},
        {"0x10", true, 0, true, 0x10},
        {"0X1f", true, 0, true, 0x1f},
        {"0xg", true, 0, true, 0},
        {"-0x10", true, 0, true, 0xFFFFFFF0},
        {" 5", true, 5, true, 5},
        {"1 2", true, 1, true, 1},
        {"", false, 0, false, 0},
        {"-", false, 0, false, 0},
        {"+", false, 0, false, 0},
        {"--1", false, 0, false, 0},
        {"x1", false, 0, false, 0},
        {"SupportPoints", false, 0, false, 0},
        {"[EndOfDevice]", false, 0, false, 0},
    };
    for (const Case& c : cases) {
        int32_t decimal = 12345;
        EXPECT_EQ(ParseLeadingNumber(c.word, &decimal), c.is_decimal) << c.word;
        EXPECT_EQ(decimal, c.is_decimal ? c.decimal : 12345) << c.word;
        uint32_t hex = 12345;
        EXPECT_EQ(ParseLeadingHexNumber(c.word, &hex), c.is_hex) << c.word;
        EXPECT_EQ(hex, c.is_hex ? c.hex : 12345u) << c.word;
    }
}

TEST(ParamWordsTest, OnlyOneDigitHeadersAreBlockHeaders) {
    struct Case {
        const char* word;
        int number;
    } cases[] = {
        {"[Device_No.0]", 0},
        {"[Device_No.7]", 7},
        {"[Device_No.9]", 9},
        {"[Device_No.99]", -1},
        {"[Device_No.x]", -1},
        {"[Device_No.-1]", -1},
        {"[Device_No.]", -1},
        {"[Device_No.1", -1},
        {"[Device_No.1)", -1},
        {"[Device_no.1]", -1},
        {"Device_No.1]", -1},
        {"[Device_No.1]x", -1},
        {"", -1},
    };
    for (const Case& c : cases) EXPECT_EQ(IniBlockNumber(c.word), c.number) << c.word;
}

}  // namespace
