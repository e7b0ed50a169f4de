// Script counters: settings, output, increase and report element.
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

TEST(Scripts, IncrementalCountersReportTheirIncrease) {
    script run("a b incremental x", custom_operations);
    std::uint64_t iteration = 0;
    expect_table("script_runs.txt", [&](const std::string& result) {
        std::istringstream(result) >> run.data().value >> run.data().updated >> run.data().mustBeUpdated;
        custom_operations.delta(run.counter, 15, iteration++);
        return run.delta().updated != 0 ? fields(run.delta().value) : "-";
    });
}
