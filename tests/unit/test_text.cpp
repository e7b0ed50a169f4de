// Numbers, copies, lines, kernel files, masks, UTF-8 and Base64.
#include <sys/mman.h>

#include <algorithm>

#include "support/tarn_base64.h"
#include "support/tarn_files.h"
#include "test_helpers.h"

using namespace std::string_view_literals;

TEST(Text, NumbersAreReadAsScanfReadsThem) {
    // Characters consumed, the value as "%lu", as "%d", which keeps the low 32 bits, and whether it is a
    // port.
    expect_table("numbers.txt", [](const std::string& text) {
        std::uint64_t wide = 0;
        int narrow = 0;
        const std::size_t taken = tarn::read_number(text, wide);
        EXPECT_EQ(tarn::read_number(text, narrow), taken);
        return fields(taken, wide, narrow, tarn::is_valid_int(text));
    });
}

TEST(Text, CopiesAreCutToTheirFields) {
    char bounded[4], whole[4], ended[4], filtered[4];
    tarn::copy_terminated(bounded, "abcd");
    tarn::copy_padded(whole, "abcdef");
    tarn::copy_padded(ended, "a\0b"sv);
    tarn::strcpyfilter("\"a\"b\"cd\"", filtered, '"');
    EXPECT_EQ(fields(bounded, tarn::text_of(whole), tarn::text_of(ended), filtered), "abc|abcd|a|abc");
}

TEST(Text, LongLinesAreSplitAtTheLimit) {
    tarn::line_reader lines("abcdefg\n\nhi", 3);
    std::string pieces;
    for (std::string_view line; lines.next(line);)
        pieces.append(line).append("|");
    EXPECT_EQ(pieces, "abc|def|g||hi|");
}

TEST(Text, KernelFilesOfManyPagesAreReadToTheirEnd) {
    // Pages with alternating rights are a line each of the process's own map.
    constexpr std::size_t page = 4096, pages = 2000;
    void* const memory = ::mmap(nullptr, pages * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    for (std::size_t at = 0; at < pages; at += 2)
        ASSERT_EQ(::mprotect(static_cast<char*>(memory) + at * page, page, PROT_READ), 0);
    const auto maps = tarn::read_kernel_file("/proc/self/maps");
    ASSERT_TRUE(maps);
    EXPECT_GT(std::ranges::count(*maps, '\n'), pages);
    ::munmap(memory, pages * page);
}

TEST(Text, MasksMatchByPrefixOnlyWithAStarAfterAPrefix) {
    const char masks[4][256] = {"lo", "veth*", "*", "br-*x"};
    expect_table("masked_names.txt",
                 [&](const std::string& name) { return fields(tarn::in_excludelist(name, masks, 4)); });
    EXPECT_FALSE(tarn::in_excludelist("lo", masks, 0));
}

TEST(Text, EachInvalidByteBecomesAQuestionMark) {
    const std::string good = "pl\xC3\xA9in \xE2\x82\xAC \xF0\x9F\x98\x80 ";
    // An invalid and a lone lead byte, two overlong forms, a surrogate, a value above U+10FFFF, two wrong
    // continuation bytes, a truncated character.
    const std::string bad =
        "\xFFx \xC3 \xC0\xAF \xE0\x9F\xBF \xED\xA0\x80 \xF4\x90\x80\x80 \xE2\x28\xA1 \xF0\x9F\x98\x41 "
        "\xE2\x82";
    EXPECT_EQ(tarn::to_utf8(good + bad), good + "?x ? ?? ??? ??? ???? ?(? ???A ??");
    EXPECT_TRUE(tarn::is_utf8(good));
    EXPECT_FALSE(tarn::is_utf8("a\xE2\x82"));
}

TEST(Text, Base64BreaksItsLinesAfter72Characters) {
    EXPECT_EQ(fields(tarn::base64(""), tarn::base64("user:pw")), "|dXNlcjpwdw==");
    const std::string line = "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFh";
    EXPECT_EQ(tarn::base64(std::string(54, 'a')), line);  // no line feed after a full last line
    EXPECT_EQ(tarn::base64(std::string(109, 'a')), line + "\n" + line + "\nYQ==");
}
