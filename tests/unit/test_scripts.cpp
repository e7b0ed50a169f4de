// Script counters: settings, output, increase and report element.
#include "customs/tarn_custom.h"
#include "customs/tarn_custom_exec.h"
#include "test_helpers.h"

using script = counter_of<tarn_mycustom_data_custom>;

TEST(Scripts, SettingsAreReadWithAllTheirQuirks) {
    const std::string longest(300, 'x'), defaults = "||65534|4|5|0|11";
    const std::pair<std::string, std::string> rows[] = {
        {" web users uid=33 interval=2 /bin/count\n", "web|users| /bin/count||33|2|5|0|11"},
        {"a b periods=15 incrementally timeout=9x alert=value>5 c uid=7",
         "a|b|c uid=7|value>5|65534|5|9|1|11"},
        {"\"my report\" \"the id\" x", "my report|the id|x" + defaults},
        {"\"one\" two\" id x", "one\" two|id|x" + defaults},  // a quote at both ends only opens
        {"a  b uid=1 x", "a|b| x||1|4|5|0|11"},
        {"a   b uid=1 x", "a|b|b uid=1 x" + defaults},  // "b" is read twice
        {"a b uid=1 type=12", "a|b|||1|4|5|0|12"},
        {"a b uid=nobody uid= c", "a|b|c" + defaults},  // a name is not read as user 0
        {"\"never closed", "never closed||" + defaults},
        {"\n", "||" + defaults},
        {longest + " i alert=" + longest + " c",
         longest.substr(0, 255) + "|i|c|" + longest.substr(0, 49) + "|65534|4|5|0|11"}};
    for (const auto& [text, settings] : rows) {
        const script parsed(text, custom_operations);
        const auto& cnt = parsed.counter;
        EXPECT_EQ(fields(cnt.report, cnt.id, cnt.exec, cnt.alert_condition, cnt.uid, cnt.interval,
                         cnt.max_seconds, cnt.incremental, cnt.type),
                  settings);
    }
}

TEST(Scripts, TheFirstLineIsTheValueTheRestAreAlerts) {
    const std::tuple<std::string, int, std::string> rows[] = {
        {"42\nDisk almost full\n", 11, "42|Disk almost full"},
        {"\n\n-1.5e1x\n\na\n", 11, "-15|a"},
        {"no number", 11, "0"},
        {"", 11001, "0"},
        {"1\n2", 11001, "0|1|2"},
        {"0\n1\n2\n3\n4\n5\n6\n7\n8\n9\nten\neleven", 11, "0|1|2|3|4|5|6|7|8|9|ten"},
        {"7\n" + std::string(400, 'a'), 11, "7|" + std::string(255, 'a')},
        {std::string("8\0\nhidden", 9), 11, "8"},
        {std::string(2000, '9'), 11, "inf"}};
    for (const auto& [output, type, expected] : rows) {
        tarn_mycustom_data_custom data{};
        custom_parse_output(output, type, data);
        std::string taken = fields(data.value);
        for (int at = 0; at < data.agent_alerts_count; ++at)
            taken += std::string("|") + data.agent_alerts[at].text;
        EXPECT_EQ(taken, expected);
    }
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
    run.delta().mustBeUpdated = run.delta().updated = run.delta().agent_alerts_count = 1;
    run.delta().value = 2.5;
    tarn::copy_terminated(run.delta().agent_alerts[0].text,
                          "h\xC3");  // truncated in the middle of a character
    custom_operations.tobson(run.counter, document);
    EXPECT_EQ(printed_document(document),
              "web_users : document\n\treport : string web\n\tname : string users\n\tinterval : int32 45\n"
              "\talert_when : string v>1\n\tvalue : double 2.500000\n\ttype : int64 12\n\talerts : array\n"
              "\t\t0 : string h?\n");
}
