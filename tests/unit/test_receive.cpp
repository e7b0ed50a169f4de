#include "receive_packet.h"
#include "receive_print.h"
#include "report/tarn_sign.h"
#include "support/tarn_bson_append.h"
#include "test_helpers.h"

namespace {

std::string small_report() {
    bson_t document = BSON_INITIALIZER;
    tarn::append_int32(document, "time", 0);
    tarn::append_int64(tarn::sub_document(document, "mem").document(), "free", 5);
    {
        tarn::sub_array redises(document, "redises");
        tarn::append_double(tarn::sub_document(redises.document(), "main").document(), "x", 0.5);
    }
    tarn::sub_array(document, "custom");
    const std::string copy(reinterpret_cast<const char*>(bson_get_data(&document)), document.len);
    bson_destroy(&document);
    return copy;
}

std::span<const std::uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// A document in which so many others lie one in the other.
std::string nested(int levels) {
    const std::string inner = levels > 0 ? std::string("\3a\0", 3) + nested(levels - 1) : "";
    const auto length = static_cast<std::uint32_t>(inner.size() + 5);
    return std::string(reinterpret_cast<const char*>(&length), 4) + inner + '\0';
}

}  // namespace

TEST(Receive, OnlyWholeAndRightlySignedPacketsAreTaken) {
    const std::string report = small_report();
    const tarn_signature good = signature_of(bytes_of(report), "abc");
    const std::string sent = report + std::string(good.begin(), good.end());
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {report, "", ""},
        {sent, "", ""},
        {sent, "abc", ""},
        {report, "abc", "not signed"},
        {sent, "abd", "wrong signature"},
        {report + "x", "", "a document of 88 bytes does not fit a packet of 89"},
        {report.substr(0, 87), "", "a document of 88 bytes does not fit a packet of 87"},
        {"", "", "shorter than any document"},
        {std::string("\x08\0\0\0~a\0\0", 8), "", "not valid BSON"},
        {std::string("\x15\0\0\0\x0F\0\x0E\0\0\0\1\0\0\0\0\5\0\0\0\0\0", 21), "", "not valid BSON"},
        {nested(1000), "", "not valid BSON"}};
    for (const auto& [packet, secret, fault] : rows) {
        const received_packet result = check_packet(bytes_of(packet), secret);
        EXPECT_EQ(result.fault, fault);
        EXPECT_EQ(std::string(result.document.begin(), result.document.end()), fault.empty() ? report : "");
    }
}

TEST(Receive, NamesInArraysAreNotLost) {
    const std::string report = small_report();
    EXPECT_EQ(
        report_as_json(bytes_of(report)),
        R"({ "time" : 0, "mem" : { "free" : 5 }, "redises" : { "main" : { "x" : 0.5 } }, "custom" : [  ] })");
    const std::string text = report_as_text(bytes_of(report));
    EXPECT_NE(text.find("time                    1970-01-01 00:00:00 UTC\n"), std::string::npos);
    EXPECT_NE(text.find("  free                  5 kB\n"), std::string::npos);
}
