// Reports as other systems take them: which figures, in which form, of which hosts.
#include <ctime>
#include <stdexcept>

#include "line_protocol.h"
#include "receive_hosts.h"
#include "test_helpers.h"

namespace {

using bytes = std::vector<std::uint8_t>;

bytes document_of(const std::string& json) {
    bson_error_t error;
    bson_t* const document =
        bson_new_from_json(reinterpret_cast<const std::uint8_t*>(json.data()), -1, &error);
    if (document == nullptr) throw std::invalid_argument(error.message + json);
    const bytes copy(bson_get_data(document), bson_get_data(document) + document->len);
    bson_destroy(document);
    return copy;
}

}  // namespace

TEST(Export, FiguresAreWrittenUnlessTheyHaveWrappedAndNoLineIsForged) {
    // Some totals fall by 5 in 15 or in 1 second, or by 3: 2^64 or 2^32 less 60 times the fall, over the
    // interval. The longest name is truncated to 255 bytes, between two characters.
    expect_table("export_lines.txt", [](const std::string& json) {
        const bytes document = document_of(json);
        std::string lines;
        append_lines(head_of(document), document, "", lines);
        return lines;
    });
}

TEST(Export, TheHostIsReadFromTheFirstElementAndNoFurtherThanThePacket) {
    expect_table("export_hosts.txt", [](const std::string& json) {
        const bytes document = document_of(json);
        const std::string host = host_of(document);
        for (std::size_t size = 0; size < document.size(); ++size) {
            // A copy, so that AddressSanitizer knows its end.
            const bytes cut(document.begin(), document.begin() + static_cast<std::ptrdiff_t>(size));
            const std::string found = host_of(cut);
            EXPECT_TRUE(found.empty() || found == host) << json << size;
        }
        return host;
    });
    bytes endless = document_of(R"({"uuid":"ab"})");
    endless[10] = endless[11] = 0xFF;
    EXPECT_EQ(host_of(endless), "");
}

TEST(Export, OldAndFutureReportsAreRefusedAndOnlySilentHostsAreDown) {
    host_table hosts(false);
    const std::time_t start = std::time(nullptr);
    // A row has the host's clock in seconds and ours in milliseconds, both since the start, and the host,
    // whose interval is 2 seconds. The result lists all hosts, the most silent first.
    expect_table("export_arrivals.txt", [&](const std::string& row) {
        std::istringstream words(row);
        report_head head{"", "", 0, 2};
        std::int64_t milliseconds = 0;
        words >> head.time >> milliseconds >> head.host;
        head.time += static_cast<std::int32_t>(start);
        const host_table::time_point now{std::chrono::milliseconds(milliseconds)};
        const char* const fault = hosts.take(head, {}, now);
        std::string outcome = fault != nullptr ? fault : "taken";
        for (const host_table::host& one : hosts.hosts())
            outcome += "|" + one.head.host + (host_table::is_up(one, now) ? " up" : " down");
        return outcome;
    });
}
