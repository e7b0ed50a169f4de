#include <bson/bson.h>
#include <gtest/gtest.h>

#include "receive_packet.h"
#include "receive_print.h"
#include "report/tarn_sign.h"
#include "support/tarn_bson_append.h"

namespace {

using bytes = std::vector<std::uint8_t>;

bytes small_report() {
    bson_t document = BSON_INITIALIZER;
    tarn::append_int32(document, "time", 0);
    {
        tarn::sub_document mem(document, "mem");
        tarn::append_int64(mem.document(), "free", 5);
    }
    {
        tarn::sub_array redises(document, "redises");
        tarn::sub_document main(redises.document(), "main");
        tarn::append_double(main.document(), "x", 0.5);
    }
    { tarn::sub_array custom(document, "custom"); }
    const bytes copy(bson_get_data(&document), bson_get_data(&document) + document.len);
    bson_destroy(&document);
    return copy;
}

bytes joined(bytes document, std::string_view tail) {
    document.insert(document.end(), tail.begin(), tail.end());
    return document;
}

}  // namespace

TEST(Receive, OnlyWholeAndRightlySignedPacketsAreTaken) {
    const bytes report = small_report();
    const tarn_signature good = signature_of(report, "abc");
    const std::string signature(good.begin(), good.end());
    bytes invalid = report;
    invalid[4] = 0x7E;
    bytes cut = report;
    cut.pop_back();
    bytes deep;  // documents in documents, each the only element of the one around it
    for (int level = 0; level < 1000; ++level) {
        const auto length = static_cast<std::uint32_t>(deep.size() + (level == 0 ? 5 : 8));
        bytes outer(reinterpret_cast<const std::uint8_t*>(&length),
                    reinterpret_cast<const std::uint8_t*>(&length) + 4);
        if (level > 0) outer.insert(outer.end(), {3, 'a', 0});
        outer.insert(outer.end(), deep.begin(), deep.end());
        outer.push_back(0);
        deep = outer;
    }
    struct {
        bytes packet;
        std::string_view secret, fault;
    } const rows[] = {
        {report, "", ""},
        {joined(report, signature), "", ""},
        {joined(report, signature), "abc", ""},
        {report, "abc", "not signed"},
        {joined(report, signature), "abd", "wrong signature"},
        {joined(report, std::string(40, 'f')), "abc", "wrong signature"},
        {joined(report, "x"), "", "a document of 88 bytes does not fit a packet of 89"},
        {cut, "", "a document of 88 bytes does not fit a packet of 87"},
        {{}, "", "shorter than any document"},
        {invalid, "", "not valid BSON"},
        {deep, "", "not valid BSON"},
    };
    for (const auto& row : rows) {
        const received_packet result = check_packet(row.packet, row.secret);
        EXPECT_EQ(result.fault, row.fault);
        EXPECT_EQ(bytes(result.document.begin(), result.document.end()),
                  row.fault.empty() ? report : bytes());
    }
}

TEST(Receive, NamesInArraysAreNotLost) {
    const bytes report = small_report();
    EXPECT_EQ(
        report_as_json(report),
        R"({ "time" : 0, "mem" : { "free" : 5 }, "redises" : { "main" : { "x" : 0.5 } }, "custom" : [  ] })");
    const std::string text = report_as_text(report);
    EXPECT_NE(text.find("time                    1970-01-01 00:00:00 UTC\n"), std::string::npos);
    EXPECT_NE(text.find("  free                  5 kB\n"), std::string::npos);
}
