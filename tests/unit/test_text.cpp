#include <gtest/gtest.h>

#include "support/tarn_name_index.h"
#include "support/tarn_text.h"
#include "support/tarn_version.h"

using namespace std::string_view_literals;

TEST(Text, NumbersAreReadAsScanfReadsThem) {
    struct {
        std::string_view text;
        std::size_t taken;
        std::uint64_t as_lu;
        int as_d;
    } const rows[] = {
        {"42", 2, 42, 42},
        {" \t-7x", 4, 0ULL - 7, -7},
        {"+5", 2, 5, 5},
        {"12.5", 2, 12, 12},
        {"5368709120", 10, 5368709120, 1073741824},  // %d keeps the low 32 bits
        {"18446744073709551615", 20, ~0ULL, -1},
        {"99999999999999999999", 20, ~0ULL, -1},
        {"-99999999999999999999", 21, ~0ULL, 0},
        {"", 0, 0, 0},
        {"-", 0, 0, 0},
        {"kB", 0, 0, 0},
    };
    for (const auto& row : rows) {
        std::uint64_t wide = 0;
        int narrow = 0;
        EXPECT_EQ(tarn::read_number(row.text, wide), row.taken) << row.text;
        EXPECT_EQ(tarn::read_number(row.text, narrow), row.taken) << row.text;
        EXPECT_EQ(wide, row.as_lu) << row.text;
        EXPECT_EQ(narrow, row.as_d) << row.text;
    }
    EXPECT_TRUE(tarn::is_valid_int("-12"));
    for (const auto bad : {"", "-", "1-", "+1", "1 ", "0x1"})
        EXPECT_FALSE(tarn::is_valid_int(bad)) << bad;
}

TEST(Text, CopiesStayInTheirFields) {
    char bounded[4];
    tarn::copy_text(bounded, "abcdef");
    EXPECT_STREQ(bounded, "abc");
    char whole[4];
    tarn::fill_text(whole, "abcdef");
    EXPECT_EQ(tarn::text_of(whole), "abcd");
    tarn::fill_text(whole, "a\0b"sv);
    EXPECT_EQ(tarn::text_of(whole), "a");
    tarn::strcpyfilter("\"a\"b\"cd\"", bounded, '"');
    EXPECT_STREQ(bounded, "abc");
    EXPECT_EQ(tarn::remove_newline_ch("x\n"), "x");
    EXPECT_EQ(tarn::remove_newline_ch("x"), "x");
}

TEST(Text, LinesComeInPiecesOfTheLimit) {
    tarn::line_reader lines("abcdefg\n\nhi", 3);
    std::vector<std::string_view> pieces;
    for (std::string_view line; lines.next(line);)
        pieces.push_back(line);
    EXPECT_EQ(pieces, (std::vector<std::string_view>{"abc", "def", "g", "", "hi"}));
}

TEST(Text, MasksMatchByPrefixOnlyWithAStarBehindSomething) {
    const char masks[4][256] = {"lo", "veth*", "*", "br-*x"};
    const auto excluded = [&](std::string_view name) { return tarn::in_excludelist(name, masks, 4); };
    for (const auto name : {"lo", "veth", "veth12", "*", "br-*x"})
        EXPECT_TRUE(excluded(name)) << name;
    for (const auto name : {"", "l", "lo0", "vet", "eth0", "br-1x"})
        EXPECT_FALSE(excluded(name)) << name;
    EXPECT_FALSE(tarn::in_excludelist("lo", masks, 0));
}

TEST(Text, EachByteOfNoCharacterBecomesAQuestionMark) {
    struct {
        std::string_view text, clean;
    } const rows[] = {
        {"pl\xC3\xA9in \xE2\x82\xAC \xF0\x9F\x98\x80", "pl\xC3\xA9in \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xFFx\xC3", "?x?"},
        {"\xC0\xAF", "??"},            // overlong
        {"\xE0\x9F\xBF", "???"},       // overlong
        {"\xED\xA0\x80", "???"},       // surrogate
        {"\xF4\x90\x80\x80", "????"},  // above U+10FFFF
        {"\xE2\x82", "??"},            // cut
        {"\xE2\x28\xA1", "?(?"},       // second byte is no continuation
        {"\xF0\x9F\x98\x41", "???A"},  // last byte is no continuation
    };
    for (const auto& row : rows) {
        EXPECT_EQ(tarn::to_utf8(row.text), row.clean);
        EXPECT_EQ(tarn::is_utf8(row.text), row.text == row.clean);
    }
}

TEST(Text, NamesKeepTheirFirstPosition) {
    tarn::name_index index;
    EXPECT_TRUE(index.add("a", 3));
    EXPECT_FALSE(index.add("a", 4));
    EXPECT_EQ(index.find("a"), 3U);
    EXPECT_FALSE(index.find("b"));
}

TEST(Version, MajorCountsBeforeMinor) {
    EXPECT_EQ(tarn_version_compare({5, 0}, {5, 0}), 0);
    EXPECT_EQ(tarn_version_compare({4, 9}, {5, 0}), -1);
    EXPECT_EQ(tarn_version_compare({5, 1}, {5, 0}), 1);
    EXPECT_EQ(tarn_version_compare({10, 0}, {5, 9}), 1);
}
