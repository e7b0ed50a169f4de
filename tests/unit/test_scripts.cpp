// Script counters: settings, output, increase and report element.
#include <algorithm>

#include "customs/tarn_custom.h"
#include "customs/tarn_custom_exec.h"
#include "test_helpers.h"

using script = counter_of<tarn_mycustom_data_custom>;

TEST(Scripts, SettingsAreReadWithAllTheirQuirks) {
    expect_table("script_lines.txt", [](const std::string& text) {
        const script made(text + "\n", custom_operations);
        const auto& cnt = made.counter;
        return fields(cnt.report, cnt.id, cnt.exec, cnt.alert_condition, cnt.uid, cnt.gid, cnt.interval,
                      cnt.max_seconds, cnt.incremental, cnt.type);
    });
}

TEST(Scripts, TheFirstLineIsTheValueTheRestAreAlerts) {
    const auto parsed = [](std::string_view output, int type = 11) {
        tarn_mycustom_data_custom data{};
        custom_parse_output(output, type, data);
        std::string taken = fields(data.value);
        for (int at = 0; at < data.agent_alerts_count; ++at)
            taken += std::string("|") + data.agent_alerts[at].text;
        return taken;
    };
    expect_table("script_outputs.txt", [&](const std::string& output) { return parsed(output); });
    EXPECT_EQ(fields(parsed("", 11001), parsed("1\n2", 11001), parsed({"8\0\nhidden", 9})), "0|0|1|2|8");
}

TEST(Scripts, ResultsFromSharedMemoryAreNotTrusted) {
    tarn_mycustom_data_custom data{};
    data.agent_alerts_count = 99;
    std::ranges::fill(data.agent_alerts[9].text, 'x');
    custom_sanitize(data);
    EXPECT_EQ(fields(data.agent_alerts_count, std::string_view(data.agent_alerts[9].text).size()), "10|255");
}

TEST(Scripts, IncrementalCountersReportTheirIncrease) {
    script run("a b incremental x", custom_operations);
    const auto cycle = [&](double value, int updated, int due, std::uint64_t iteration) {
        run.data().value = value;
        run.data().updated = updated;
        run.data().mustBeUpdated = due;
        custom_operations.delta(run.counter, 15, iteration);
        return run.delta().updated != 0 ? fields(run.delta().value) : "-";
    };
    EXPECT_EQ(cycle(100, 1, 1, 0), "-");
    EXPECT_EQ(cycle(999, 0, 0, 1), "-");  // not due: the baseline stays
    EXPECT_EQ(cycle(130, 1, 1, 2), "30");
    EXPECT_EQ(cycle(40, 1, 1, 3), "0");  // a reset
    EXPECT_EQ(cycle(0, 0, 1, 4), "-");   // failed
    EXPECT_EQ(cycle(50, 1, 1, 5), "-");  // the previous run failed
    EXPECT_EQ(cycle(51, 1, 1, 6), "1");
}

TEST(Scripts, TheReportNamesValueTypeAndAlerts) {
    script run("web users alert=v>1 type=12 interval=3 x", custom_operations);
    bson_t document = BSON_INITIALIZER;
    custom_operations.tobson(run.counter, document);
    EXPECT_TRUE(bson_empty(&document));
    run.delta().mustBeUpdated = run.delta().updated = 1;
    run.delta().agent_alerts_count = 2;
    run.delta().value = 2.5;
    tarn::copy_terminated(run.delta().agent_alerts[0].text, "h\xC3");  // truncated within a character
    custom_operations.tobson(run.counter, document);
    EXPECT_EQ(printed_document(document),
              "web_users : document\n\treport : string web\n\tname : string users\n\tinterval : int32 45\n"
              "\talert_when : string v>1\n\tvalue : double 2.500000\n\ttype : int64 12\n\talerts : array\n"
              "\t\t0 : string h?\n\t\t1 : string \n");
}
