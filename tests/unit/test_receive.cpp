// tarn-receive: the checks on a packet, and the printed forms of a report.
#include "receive_packet.h"
#include "receive_print.h"
#include "report/tarn_sign.h"
#include "support/tarn_bson_append.h"
#include "test_helpers.h"

namespace {

std::span<const std::uint8_t> bytes_of(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string signed_with(const std::string& document, std::string_view secret) {
    const tarn_signature signature = signature_of(bytes_of(document), secret);
    return document + std::string(signature.begin(), signature.end());
}

/// A document with this many further documents nested in it.
std::string nested(int levels) {
    const std::string inner = levels > 0 ? std::string("\3a\0", 3) + nested(levels - 1) : "";
    const auto length = static_cast<std::uint32_t>(inner.size() + 5);
    return std::string(reinterpret_cast<const char*>(&length), 4) + inner + '\0';
}

}  // namespace

TEST(Receive, OnlyCompleteAndCorrectlySignedPacketsAreAccepted) {
    const std::string report("\x0C\0\0\0\x10k\0\5\0\0\0\0", 12);
    std::string forged = signed_with(report, "abc");
    forged.back() ^= 1;
    const std::string unparsable("\x08\0\0\0~a\0\0", 8);
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {signed_with(report, "abc"), "", ""},
        {signed_with(report, "abc"), "abc", ""},
        {forged, "abc", "wrong signature"},
        {unparsable, "abc", "not signed"},
        {signed_with(unparsable, "abd"), "abc", "wrong signature"},
        {signed_with(unparsable, "abc"), "abc", "not valid BSON"},
        {report + "x", "", "a document of 12 bytes does not fit a packet of 13"},
        {report.substr(0, 11), "", "a document of 12 bytes does not fit a packet of 11"},
        {report.substr(0, 4), "", "shorter than any document"},
        // Code with a scope, a regular expression and a key that are not UTF-8, an array without an end, a
        // text with a zero byte.
        {std::string("\x15\0\0\0\x0F\0\x0E\0\0\0\1\0\0\0\0\5\0\0\0\0\0", 21), "", "not valid BSON"},
        {std::string("\x0B\0\0\0\x0Br\0\xFF\0\0\0", 11), "", "not valid BSON"},
        {std::string("\x0C\0\0\0\x10\x9B\0\1\0\0\0\0", 12), "", "not valid BSON"},
        {std::string("\x12\0\0\0\4a\0\x0A\0\0\0\xFF\x90\6\x10\0\x10\0", 18), "", "not valid BSON"},
        {std::string("\x0F\0\0\0\2a\0\3\0\0\0b\0\0\0", 15), "", "not valid BSON"},
        {nested(1000), "", "not valid BSON"}};
    for (const auto& [packet, secret, fault] : rows) {
        const received_packet result = check_packet(bytes_of(packet), secret);
        EXPECT_EQ(result.fault, fault);
        EXPECT_EQ(std::string(result.document.begin(), result.document.end()), fault.empty() ? report : "");
    }
}

TEST(Receive, KeysInArraysAreKeptAndControlCharactersEscaped) {
    bson_t document = BSON_INITIALIZER;
    const std::string text = "a\x01\x1B[2J\x7F\xC2\x80\xC2\x9F \xC2\xA0\xC3\x9F";
    const std::string shown = "a\\u0001\\u001b[2J\\u007f\\u0080\\u009f \xC2\xA0\xC3\x9F";
    tarn::append_int32(document, "time", 0);
    {
        tarn::sub_array redises(document, "redises");
        tarn::append_int64(tarn::sub_document(redises.document(), "main").document(), "memused", 5);
    }
    tarn::append_text(document, text, text);
    const std::span<const std::uint8_t> bytes(bson_get_data(&document), document.len);
    EXPECT_EQ(report_as_json(bytes), R"({ "time" : 0, "redises" : { "main" : { "memused" : 5 } }, ")" +
                                         shown + "\" : \"" + shown + "\" }");
    EXPECT_EQ(report_as_text(bytes),
              "time                    1970-01-01 00:00:00 UTC\nredises\n  main\n"
              "    memused             5 bytes\n" +
                  shown + " " + shown + "\n");
    bson_destroy(&document);
}
