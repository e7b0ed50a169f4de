// FastCGI parameters and records.
#include "services/tarn_fcgi.h"
#include "test_helpers.h"

namespace {

/// A record of an answer.
std::string record_of(char type, const std::string& content, std::size_t padding) {
    const char length[] = {static_cast<char>(content.size() >> 8), static_cast<char>(content.size())};
    return std::string("\1") + type + std::string("\0\1", 2) + std::string(length, 2) +
           static_cast<char>(padding) + '\0' + content + std::string(padding, 'p');
}

}  // namespace

TEST(Fcgi, ParametersAreEncodedByteForByte) {
    const auto encoded = [](const std::string& name, const std::string& value) {
        std::string pair;
        const std::size_t length = serialize_name_value(pair, {name, value});
        return fields(length, pair);
    };
    const std::string longer(128, 'v'), short_one(127, 'n');
    EXPECT_EQ(encoded("N", longer), "134|" + std::string("\x01\x80\0\0\0N", 6) + longer);
    EXPECT_EQ(encoded(short_one, ""), "129|" + std::string("\x7F\0", 2) + short_one);
}

TEST(Fcgi, AnswersMayBeSplitAnywhere) {
    const std::string empty = record_of(6, "", 0);
    fcgi_record without_content;
    std::span<const char> header(empty);
    EXPECT_EQ(fcgi_process_record(header, without_content), fcgi_progress::incomplete);
    const std::string output = record_of(6, "accepted conn: 120\n", 3);
    const std::string answer = output + record_of(3, "12345678", 0);
    for (std::size_t split = 0; split <= answer.size(); ++split) {
        fcgi_record record;
        std::span<const char> first(answer.data(), split);
        std::span<const char> second(answer.data() + split, answer.size() - split);
        const bool whole = fcgi_process_record(first, record) == fcgi_progress::complete;
        EXPECT_EQ(whole, split >= output.size()) << split;
        EXPECT_TRUE(whole || fcgi_process_record(second, record) == fcgi_progress::complete) << split;
        EXPECT_EQ(first.size() + second.size(), 16U);
        EXPECT_EQ(fields(record.state, int{record.header.type}, record.content), "11|6|accepted conn: 120\n");
    }
}
