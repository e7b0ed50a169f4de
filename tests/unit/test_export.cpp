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

std::string lines_of(const std::string& json) {
    const bytes document = document_of(json);
    std::string lines;
    append_lines(head_of(document), document, "", lines);
    return lines;
}

/// The lines without that of the host, whose only figure is the interval.
std::string lines_of(const std::string& interval, const std::string& elements) {
    const std::string lines = lines_of(R"({"id":1,"time":9,"interval":)" + interval + "," + elements + "}");
    return lines.substr(lines.find('\n') + 1);
}

}  // namespace

TEST(Export, FiguresAreWrittenUnlessTheyHaveWrapped) {
    // Falls by 5 in 15 and in 1 second, and by 3; 2^64 and 2^32 less 60 times the fall, over the interval.
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"15", R"("redises":{"main":{"ok":1,"uptime":99,"total_commands_processed":1800,"keyspace_hits":0,
                   "keyspace_misses":286331133,"keys":7}})",
         "tarn_redis,host=1,server=main uptime_seconds=99i,commands_per_minute=1800i,"
         "keyspace_hits_per_minute=0i,keys=7i 9\n"},
        {"15", R"("redises":{"main":{"ok":1,"uptime":15,"total_commands_processed":1800,"keys":7}})",
         "tarn_redis,host=1,server=main uptime_seconds=15i,keys=7i 9\n"},
        {"15", R"("memcaches":{"a:1":{"ok":1,"get":1229782938247303421,"set":12000000000,"bytes":-1}})",
         "tarn_memcached,host=1,server=a:1 sets_per_minute=12000000000i,stored_bytes=-1i 9\n"},
        {"1", R"("memcaches":{"a:1":{"ok":1,"get":-300,"set":2}})",
         "tarn_memcached,host=1,server=a:1 sets_per_minute=2i 9\n"},
        {"15", R"("net":{"lo":{"ok":1,"rbytes":-8608480567731124128,"sbytes":88}})",
         "tarn_network,host=1,interface=lo sent_bytes_per_second=11 9\n"},
        {"15", R"("beanstalks":{"a:1":{"ok":1,"put":1229782938247303421,"connections":1229782938247303429,
                   "timeout":4}})",
         "tarn_beanstalkd,host=1,server=a:1 connections_change_per_minute=-12i,job_timeouts_total=4i 9\n"},
        {"15", R"("cpu":{"ok":1,"idle":57,"user":100,"system":101,"nice":-1})",
         "tarn_cpu,host=1 idle_ratio=0.57,user_ratio=1 9\n"},
        {"15", R"("cpu":{"ok":0,"idle":0})", ""},
        {"15", R"("mem":{"ok":1,"free":3,"used":9223372036854775807,"swapin":0})",
         "tarn_memory,host=1 free_bytes=3072i,swap_in_pages_per_second=0i 9\n"},
        {"15",
         R"("disks":{"sda":{"ok":1,"name":"sda","sread":2,"avio":1.5,"busy":100.5},"sdb":{"busy":1e17}})",
         "tarn_disk,host=1,device=sda read_bytes_per_second=1024i,operation_seconds=0.0015,busy_ratio=1.005 "
         "9\n"},
        {"15", R"("docker":{"web":{"cpu_usage":{"$numberDouble":"NaN"},"state":"exited"},
                   "db":{"cpu_usage":{"$numberDouble":"Infinity"},"state":"running"}})",
         "tarn_container,host=1,container=web running=0i 9\n"
         "tarn_container,host=1,container=db running=1i 9\n"}};
    for (const auto& [interval, elements, lines] : rows)
        EXPECT_EQ(lines_of(interval, elements), lines) << elements;
}

TEST(Export, NamesAreEscapedAndNoLineIsForged) {
    const std::pair<std::string, std::string> rows[] = {{R"(/a b,c=d)", R"(/a\ b\,c\=d)"},
                                                        {R"(say \"hi\")", R"(say\ "hi")"},
                                                        {R"(two\nlines\t)", R"(two\ lines\ )"},
                                                        {R"(C:\\dir)", R"(C:\dir)"},
                                                        {R"(end\\)", R"(end/)"},
                                                        {R"(a\\ b\\\\c\\,)", R"(a/\ b/\c/\,)"},
                                                        {"\xC3\xA4", "\xC3\xA4"},
                                                        {R"(x i=1 9\ny)", R"(x\ i\=1\ 9\ y)"}};
    for (const auto& [name, escaped] : rows)
        EXPECT_EQ(lines_of("1", R"("mounts":{")" + name + R"(":{"free":1}})"),
                  "tarn_filesystem,host=1,mountpoint=" + escaped + " free_bytes=1048576i 9\n");
    const std::string ss = "\xC3\x9F";
    std::string longest = "x";
    while (longest.size() < 255)
        longest += ss;
    EXPECT_EQ(lines_of("1", R"("mounts":{")" + longest + ss + R"(":{"free":1}})"),
              "tarn_filesystem,host=1,mountpoint=" + longest + " free_bytes=1048576i 9\n");
    EXPECT_EQ(lines_of(R"({"uuid":"0a b","server_name":"web,1","time":-5,"ncpu":2})"),
              R"(tarn_host,host=0a\ b,name=web\,1 cpus=2i -5)"
              "\n");
    EXPECT_EQ(lines_of(R"({"id":-2,"ncpu":2})"), "tarn_host,host=4294967294 cpus=2i 0\n");
}

TEST(Export, WhatTheTableDoesNotKnowIsLeftOut) {
    EXPECT_EQ(lines_of("1", R"("mem":{"free":1,"free":2,"more":3,"used":"4","cached":5.5},"mem":{"free":6},
                               "disks":7,"net":{"lo":8},"strange":{"x":{"free":9}},"":{"ncpu":10},
                               "mycustoms":{"a":{"report":"Nginx","id":"a","rps":0.5,"active":true},
                                            "b":{"report":"mem","id":"b","free":1},"c":{"report":"","free":1}},
                               "docker":{"a":{"cpu_usage":2.0,"state":1},"a":{"cpu_usage":3.0}})"),
              "tarn_memory,host=1 free_bytes=1024i 9\n"
              "tarn_nginx,host=1,server=a requests_per_second=0.5 9\n"
              "tarn_container,host=1,container=a cpu_usage_ratio=0.02 9\n");
}

TEST(Export, TheHostIsReadFromTheFirstElementAndNoFurtherThanThePacket) {
    const std::pair<std::string, std::string> rows[] = {{R"({"id":7,"id":8})", "7"},
                                                        {R"({"uuid":"ab","id":8})", "ab"},
                                                        {R"({"name":"","id":8})", ""},
                                                        {R"({"id":"8"})", ""},
                                                        {R"({"uuid":""})", ""},
                                                        {R"({"idx":8})", ""},
                                                        {R"({})", ""},
                                                        {R"({"uuid":{"$numberInt":"3"}})", ""}};
    for (const auto& [json, host] : rows) {
        const bytes document = document_of(json);
        EXPECT_EQ(host_of(document), host) << json;
        for (std::size_t size = 0; size < document.size(); ++size) {
            const bytes cut(document.begin(), document.begin() + static_cast<std::ptrdiff_t>(size));
            const std::string found = host_of(cut);
            EXPECT_TRUE(found.empty() || found == host) << json << size;
        }
    }
    bytes endless = document_of(R"({"uuid":"ab"})");
    endless[10] = endless[11] = 0xFF;
    EXPECT_EQ(host_of(endless), "");
}

TEST(Export, OldAndFutureReportsAreRefusedAndOnlySilentHostsAreDown) {
    host_table hosts(false);
    const host_table::time_point start{};
    const auto now = static_cast<std::int32_t>(std::time(nullptr));
    const auto taken = [&](const std::string& host, std::int32_t time, int second) {
        const char* const fault = hosts.take({host, "", time, 2}, {}, start + std::chrono::seconds(second));
        return std::string(fault != nullptr ? fault : "");
    };
    EXPECT_EQ(taken("1", now, 0), "");
    EXPECT_EQ(taken("1", now, 1), "not newer than the last");
    EXPECT_EQ(taken("1", now - 1, 1), "not newer than the last");
    EXPECT_EQ(taken("2", now - 1, 1), "");
    EXPECT_EQ(taken("1", now + 3600, 1), "dated in the future");
    EXPECT_EQ(taken("", now, 1), "no host");
    EXPECT_EQ(taken("1", now + 1, 2), "");
    EXPECT_EQ(hosts.hosts().front().head.host, "2");
    EXPECT_TRUE(host_table::is_up(hosts.hosts().front(), start + std::chrono::seconds(7)));
    EXPECT_FALSE(host_table::is_up(hosts.hosts().front(), start + std::chrono::milliseconds(7001)));
    EXPECT_EQ(taken("1", now + 2, 90000), "");
    EXPECT_EQ(hosts.hosts().size(), 1U);
}
