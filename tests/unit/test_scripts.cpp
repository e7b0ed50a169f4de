#include <bson/bson.h>
#include <gtest/gtest.h>

#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "scripts/tarn_custom.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_text.h"

namespace {

using data_custom = tarn_mycustom_data_custom;

/// A script counter with its records, initialised from a configuration text.
struct script {
    tarn_mycustom_counter counter{};
    std::string printed;
    explicit script(std::string_view text) {
        init_config();
        config.interval = 15;
        tarn::fill_text(counter.cfg_string, text);
        testing::internal::CaptureStdout();
        custom_init(counter);
        printed = testing::internal::GetCapturedStdout();
    }
    script(const script&) = delete;
    script& operator=(const script&) = delete;
    ~script() { custom_free(counter); }
    [[nodiscard]] data_custom& data() const { return tarn::data_of<data_custom>(counter); }
    [[nodiscard]] data_custom& delta() const { return tarn::data_delta_of<data_custom>(counter); }
};

std::string taken(std::string_view output, int type) {
    data_custom data{};
    custom_parse_output(output, type, data);
    std::string text = std::to_string(data.value);
    for (int at = 0; at < data.agent_alerts_count; ++at)
        text += std::string("|") + data.agent_alerts[at].text;
    return text;
}

}  // namespace

TEST(Scripts, SettingsAreReadWithAllTheirQuirks) {
    struct {
        std::string_view text;
        const char *report, *id, *exec, *alert;
        int uid, interval, seconds, incremental, type;
    } const rows[] = {
        {" web users uid=33 interval=2 /usr/local/bin/count-users\n", "web", "users",
         " /usr/local/bin/count-users", "", 33, 2, 5, 0, 11},
        {"general server_status uid=0 gid=0 interval=1 type=11001  /bin/st -a  b\n", "general",
         "server_status", " /bin/st -a  b", "", 0, 1, 5, 0, 11001},
        {"a b periods=15 incrementally timeout=9x alert=value>5 c uid=7", "a", "b", "c uid=7", "value>5",
         65534, 5, 9, 1, 11},
        {"\"my report\" \"the id\" x", "my report", "the id", "x", "", 65534, 4, 5, 0, 11},
        {"\"one\" two\" id x", "one\" two", "id", "x", "", 65534, 4, 5, 0, 11},  // only opens, then closes
        {"a  b uid=1 x", "a", "b", " x", "", 1, 4, 5, 0, 11},
        {"a   b uid=1 x", "a", "b", "b uid=1 x", "", 65534, 4, 5, 0, 11},  // "b" is read twice
        {"a b uid=1", "a", "b", "", "", 1, 4, 5, 0, 11},
        {"\"never closed", "never closed", "", "", "", 65534, 4, 5, 0, 11},
        {"\n", "", "", "", "", 65534, 4, 5, 0, 11},
    };
    for (const auto& row : rows) {
        const script read(row.text);
        EXPECT_STREQ(read.counter.report, row.report) << row.text;
        EXPECT_STREQ(read.counter.id, row.id) << row.text;
        EXPECT_STREQ(read.counter.exec, row.exec) << row.text;
        EXPECT_STREQ(read.counter.alert_condition, row.alert) << row.text;
        EXPECT_EQ(read.counter.uid, row.uid) << row.text;
        EXPECT_EQ(read.counter.interval, row.interval) << row.text;
        EXPECT_EQ(read.counter.max_seconds, row.seconds) << row.text;
        EXPECT_EQ(read.counter.incremental, row.incremental) << row.text;
        EXPECT_EQ(read.counter.type, row.type) << row.text;
    }
    const std::string longest(300, 'x');
    const script cut(longest + " " + longest + " alert=" + longest + " " + std::string(1500, 'c'));
    EXPECT_EQ(cut.counter.report, longest.substr(0, 255));
    EXPECT_EQ(cut.counter.alert_condition, longest.substr(0, 49));
    EXPECT_EQ(std::string_view(cut.counter.exec).size(), 2048U - 300 - 300 - 306 - 3);
}

TEST(Scripts, InitPrintsWhatItUnderstood) {
    EXPECT_EQ(script(" web users uid=33 alert=x periods=2 gid=3 run it\n").printed,
              "Custom conuter init:\n\tCfg string =  web users uid=33 alert=x periods=2 gid=3 run it\n"
              "\tReport = web\n\tId = users\n\tExec =  run it\n\tAlert when = x\n"
              "\tUid = 33, Gid = 3, Interval = 0, MaxSeconds = 5, Inc = 0, Type = 11\n"
              "Custom counter web users: period 0 is not allowed, using 1\n");
    EXPECT_TRUE(script("web users interval=-3")
                    .printed.ends_with("Custom counter web users has no command\nCustom counter web users: "
                                       "period -3 is not allowed, using 1\n"));
}

TEST(Scripts, TheFirstLineIsTheValueTheRestAreAlerts) {
    EXPECT_EQ(taken("42\nDisk almost full\n", 11), "42.000000|Disk almost full");
    EXPECT_EQ(taken("\n\n-1.5e1x\n\na\n", 11), "-15.000000|a");
    EXPECT_EQ(taken("no number", 11), "0.000000");
    EXPECT_EQ(taken("", 11001), "0.000000");
    EXPECT_EQ(taken("1\n2", 11001), "0.000000|1|2");
    EXPECT_EQ(taken("0\n1\n2\n3\n4\n5\n6\n7\n8\n9\nten\neleven", 11), "0.000000|1|2|3|4|5|6|7|8|9|ten");
    EXPECT_EQ(taken("7\n" + std::string(400, 'a'), 11), "7.000000|" + std::string(255, 'a'));
    EXPECT_EQ(taken(std::string_view("8\0\nhidden", 9), 11), "8.000000");
    EXPECT_EQ(taken(std::string(2000, '9'), 11), "inf");
}

TEST(Scripts, IncrementalCountersReportTheirIncrease) {
    const script run("a b incremental x");
    const auto cycle = [&](double value, int updated, int due, std::uint64_t iteration) {
        run.data().value = value;
        run.data().updated = updated;
        run.data().mustBeUpdated = due;
        custom_delta(const_cast<tarn_mycustom_counter&>(run.counter), 15, iteration);
        return run.delta().updated != 0 ? std::to_string(run.delta().value) : "-";
    };
    EXPECT_EQ(cycle(100, 1, 1, 0), "-");
    EXPECT_EQ(cycle(999, 0, 0, 1), "-");  // not due: the baseline stays
    EXPECT_EQ(cycle(130, 1, 1, 2), "30.000000");
    EXPECT_EQ(cycle(40, 1, 1, 3), "0.000000");  // a reset
    EXPECT_EQ(cycle(0, 0, 1, 4), "-");          // failed
    EXPECT_EQ(cycle(50, 1, 1, 5), "-");         // the one before failed
    EXPECT_EQ(cycle(51, 1, 1, 6), "1.000000");
}

TEST(Scripts, WhatSharedMemoryHoldsIsConfined) {
    data_custom data{};
    std::fill_n(reinterpret_cast<unsigned char*>(&data), sizeof data, 0xFF);
    custom_confine(data);
    EXPECT_EQ(data.agent_alerts_count, 0);
    EXPECT_EQ(std::string_view(data.agent_alerts[9].text).size(), 255U);
    data.agent_alerts_count = 11;
    custom_confine(data);
    EXPECT_EQ(data.agent_alerts_count, 10);
}

TEST(Scripts, TheReportNamesValueTypeAndAlerts) {
    const script run("web users alert=v>1 type=12 interval=3 x");
    run.delta() = {};
    bson_t document = BSON_INITIALIZER;
    custom_tobson(const_cast<tarn_mycustom_counter&>(run.counter), document);
    EXPECT_TRUE(bson_empty(&document));
    run.delta().mustBeUpdated = run.delta().updated = 1;
    run.delta().value = 2.5;
    run.delta().agent_alerts_count = 1;
    tarn::copy_text(run.delta().agent_alerts[0].text, "h\xC3");  // cut in the middle of a character
    custom_tobson(const_cast<tarn_mycustom_counter&>(run.counter), document);
    char* const json = bson_as_canonical_extended_json(&document, nullptr);
    EXPECT_STREQ(
        json,
        R"({ "web_users" : { "report" : "web", "name" : "users", "interval" : { "$numberInt" : "45" }, )"
        R"("alert_when" : "v>1", "value" : { "$numberDouble" : "2.5" }, "type" : { "$numberLong" : "12" }, )"
        R"("alerts" : [ "h?" ] } })");
    bson_free(json);
    bson_destroy(&document);
}
