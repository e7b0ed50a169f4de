#include <gtest/gtest.h>

#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "services/tarn_apache.h"
#include "services/tarn_elastic.h"
#include "services/tarn_fcgi.h"
#include "services/tarn_fpm.h"
#include "services/tarn_nginx.h"
#include "services/tarn_rabbit.h"
#include "support/tarn_base64.h"
#include "support/tarn_text.h"

namespace {

/// What a kind's init prints for a configuration text.
std::string init_text(const char* text, mycustom_init init, mycustom_free release) {
    init_config();
    tarn_mycustom_counter counter{};
    tarn::fill_text(counter.cfg_string, text);
    testing::internal::CaptureStdout();
    init(counter);
    release(counter);
    return testing::internal::GetCapturedStdout();
}

/// A record of a FastCGI answer.
std::string record_of(char type, const std::string& content, std::size_t padding) {
    const char head[] = {1,
                         type,
                         0,
                         1,
                         static_cast<char>(content.size() >> 8),
                         static_cast<char>(content.size()),
                         static_cast<char>(padding),
                         0};
    return std::string(head, 8) + content + std::string(padding, 'p');
}

}  // namespace

TEST(Web, Base64BreaksItsLinesAfter72Characters) {
    EXPECT_EQ(tarn::base64(""), "");
    EXPECT_EQ(tarn::base64("user:pw"), "dXNlcjpwdw==");
    EXPECT_EQ(tarn::base64(std::string(54, 'a')).find('\n'),
              std::string::npos);  // 72 characters, no line end
    const std::string lines = tarn::base64(std::string(109, 'a'));
    EXPECT_EQ(lines.size(), 148U + 2);
    EXPECT_EQ(lines.find('\n'), 72U);
    EXPECT_EQ(lines.rfind('\n'), 145U);
}

TEST(Web, AddressesOfStatusPages) {
    const auto nginx = [](const char* text) { return init_text(text, nginx_init, nginx_free); };
    EXPECT_EQ(nginx("main 10.0.0.5:80/status www.example\n"),
              "Nginx main init with  *** 10.0.0.5 80 status \n");
    EXPECT_EQ(nginx("main u:pw@10.0.0.5:80/status x"),
              "Nginx main init with u *** 10.0.0.5 80 status dTpwdw==\n");
    EXPECT_EQ(nginx("main u:@10.0.0.5:80/status x"), "Nginx main init with u *** 10.0.0.5 80 status \n");
    EXPECT_EQ(nginx("main [web]:80/a/b x"), "Nginx main init with  *** [web] 80 a \n");  // "b" is the server
    EXPECT_EQ(nginx("main h:port/a x"), "Nginx main init with  *** h 0  \n");
    EXPECT_EQ(init_text("main u:p@h:81", apache_init, apache_free),
              "Apache main init with u *** h 81 dTpw\n");
    EXPECT_EQ(init_text("main u:@h:81", apache_init, apache_free), "Apache main init with u *** h 81 \n");
    EXPECT_EQ(init_text("main h:81\n", apache_init, apache_free), "Apache main init with  *** h 81 \n");
    EXPECT_EQ(init_text("a 10.0.0.5:9000 /status", fpm_init, fpm_free),
              "FPM a init with host: 10.0.0.5 port: 9000  status: /status socket: \n");
    EXPECT_EQ(init_text("a unix:/run/php.sock /s\n", fpm_init, fpm_free),
              "FPM a init with host: unix port: 0  status: /s socket: /run/php.sock\n");
}

TEST(Web, NginxStatusIsReadLineByLine) {
    tarn_mycustom_data_nginx data{};
    data.active = 9;
    EXPECT_EQ(nginx_parse_res("\n\n", data), 0);
    EXPECT_EQ(data.active, 9U);
    EXPECT_EQ(
        nginx_parse_res(
            "HTTP/1.1 200 OK\r\n\r\nActive connections: 3 \nserver accepts handled requests\n 10 10 25 \n"
            "Reading: 4 Writing: 5 Waiting: 6 \n",
            data),
        1);
    EXPECT_EQ(data.active, 3U);
    EXPECT_EQ(data.all, 25.0);
    EXPECT_EQ(data.reading * 100 + data.writing * 10 + data.keepalive, 456U);
    EXPECT_EQ(nginx_parse_res("HTTP/1.1 404\r\n<html>", data), 1);
    EXPECT_EQ(data.all + static_cast<double>(data.active + data.keepalive), 0.0);
    nginx_parse_res("server accepts handled requests\nReading: 1 Writing: 2\nReading: 7 Writing: x", data);
    EXPECT_EQ(data.reading, 7U);  // the line behind the title is taken for the totals, whatever it is
    EXPECT_EQ(data.writing, 0U);
}

TEST(Web, ApacheScoreboardIsCountedByLetter) {
    tarn_mycustom_data_apache data{};
    EXPECT_EQ(apache_parse_res("", data), 0);
    EXPECT_EQ(apache_parse_res(
                  "Total Accesses: 1000\nBusyWorkers: 2\nIdleWorkers: 8\nScoreboard: _W_RKIDGCLWS..\n", data),
              1);
    EXPECT_EQ(data.totalAccesses, 1000U);
    EXPECT_EQ(data.busyWorkers * 10 + data.idleWorkers, 28U);
    EXPECT_EQ(data.scWaiting, 2U);
    EXPECT_EQ(data.scReading + data.scKeepalive + data.scIdlecleanup + data.scDns, 4U);
    EXPECT_EQ(data.scFinishing + data.scClosing + data.scLogging, 3U);
    EXPECT_EQ(apache_parse_res("nothing", data), 1);
    EXPECT_EQ(data.scWaiting + data.totalAccesses, 0U);
}

TEST(Web, RatesOfRestartedServers) {
    tarn_mycustom_counter counter{};
    tarn::allocate_records<tarn_mycustom_data_nginx>(counter);
    const auto nginx = [&counter](double all, std::uint64_t iteration) {
        auto& data = tarn::data_of<tarn_mycustom_data_nginx>(counter);
        data.ok = 1;
        data.all = all;
        nginx_delta(counter, 60, iteration);
        return tarn::data_delta_of<tarn_mycustom_data_nginx>(counter).all;
    };
    nginx(100, 0);
    EXPECT_EQ(nginx(190, 1), 1.5);
    EXPECT_EQ(nginx(40, 2), 0.0);
    tarn::release_records<tarn_mycustom_data_nginx>(counter);
    tarn::allocate_records<tarn_mycustom_data_apache>(counter);
    const auto apache = [&counter](std::uint64_t total, std::uint64_t iteration) {
        auto& data = tarn::data_of<tarn_mycustom_data_apache>(counter);
        data.ok = 1;
        data.totalAccesses = total;
        apache_delta(counter, 60, iteration);
        return tarn::data_delta_of<tarn_mycustom_data_apache>(counter).totalAccesses;
    };
    apache(700, 0);
    EXPECT_EQ(apache(1000, 1), 5U);
    EXPECT_EQ(apache(0, 2), (0ULL - 1000) / 60);
    tarn::release_records<tarn_mycustom_data_apache>(counter);
}

TEST(Fcgi, RequestByteByByte) {
    std::string pair;
    EXPECT_EQ(serialize_name_value(pair, {"SCRIPT_FILENAME", "/status"}), 24U);
    EXPECT_EQ(pair, "\x0F\x07SCRIPT_FILENAME/status");
    pair.clear();
    EXPECT_EQ(serialize_name_value(pair, {"N", std::string(200, 'v')}), 206U);
    EXPECT_EQ(pair.substr(0, 6), std::string("\x01\xC8\0\0\0N", 6));
    pair.clear();
    serialize_name_value(pair, {std::string(127, 'n'), ""});
    EXPECT_EQ(pair.substr(0, 3), std::string("\x7F\0n", 3));

    const std::string parameters =
        "\x0F\x17SCRIPT_FILENAME/tarn_asking_for_status\x0B\x02SCRIPT_NAME/s\x0B\x02REQUEST_URI/"
        "s\x0E\x03REQUEST_METHODGET";
    const std::string expected = std::string("\1\1\0\1\0\x08\0\0\0\1\0\0\0\0\0\0", 16) +
                                 std::string("\1\4\0\1\0", 5) + static_cast<char>(parameters.size()) +
                                 std::string("\0\0", 2) + parameters + std::string("\1\4\0\1\0\0\0\0", 8);
    EXPECT_EQ(fcgi_status_request("/s"), expected);
}

TEST(Fcgi, AnswersMayBeSplitAnywhere) {
    const std::string output = record_of(6, "accepted conn: 120\n", 3);
    const std::string answer = output + record_of(3, "12345678", 0);
    for (std::size_t split = 0; split <= answer.size(); ++split) {
        fcgi_record record;
        std::span<const char> first(answer.data(), split);
        std::span<const char> second(answer.data() + split, answer.size() - split);
        const bool whole = fcgi_process_record(first, record) == fcgi_progress::complete;
        EXPECT_EQ(whole, split >= output.size()) << split;
        if (!whole) {
            EXPECT_TRUE(first.empty());
            EXPECT_EQ(fcgi_process_record(second, record), fcgi_progress::complete) << split;
            EXPECT_EQ(second.size(), 16U);
        }
        EXPECT_EQ(record.state, fcgi_state_done);
        EXPECT_EQ(record.content, "accepted conn: 120\n");
        EXPECT_EQ(record.header.type, 6);
    }
}

TEST(Fcgi, LengthsNeverLeadBeyondTheBytes) {
    const auto decode = [](const std::string& bytes) {
        fcgi_record record;
        std::span<const char> rest(bytes);
        const fcgi_progress progress = fcgi_process_record(rest, record);
        return std::to_string(static_cast<int>(progress)) + "/" + std::to_string(record.state) + "/" +
               std::to_string(rest.size());
    };
    EXPECT_EQ(decode(record_of(6, "", 0)), "1/8/0");  // the head is the last that has come
    EXPECT_EQ(decode(record_of(6, "", 0) + "x"), "2/11/1");
    EXPECT_EQ(decode(std::string("\1\6\0\1\xFF\xFF\xFF\0short", 13)), "1/9/0");
    EXPECT_EQ(decode(record_of(6, "abc", 5).substr(0, 13)), "1/10/0");  // in the padding
    EXPECT_EQ(decode(""), "1/0/0");
}

TEST(Web, FpmStatusIsReadBehindTheHeaders) {
    tarn_mycustom_data_fpm data{};
    EXPECT_EQ(fpm_parse_res("\n", data), 0);
    EXPECT_EQ(fpm_parse_res(
                  "Content-type: text/plain\r\n\r\npool: www\naccepted conn:        120\nlisten queue:  9\n"
                  "listen queue len:     128\nidle processes:       1\nactive processes:     2\n"
                  "total processes:      3\nmax active processes: 9\nmax children reached: 4\n",
                  data),
              1);
    EXPECT_EQ(data.accepted, 120.0);
    EXPECT_EQ(data.idle * 1000 + data.active * 100 + data.total * 10 + data.max_children, 1234U);
    EXPECT_EQ(data.lqueue, 128U);
}

TEST(Web, RabbitFiguresAreScaled) {
    tarn_mycustom_data_rabbit data{};
    EXPECT_EQ(
        rabbit_parse_node_items(
            R"([{"fd_used":30,"fd_total":120,"proc_used":250,"proc_total":1000,"disk_free":5000000000,)"
            R"("disk_free_limit":50000000,"mem_used":100000000,"mem_limit":400000000,"processors":4,"running":true}])",
            data),
        1);
    EXPECT_EQ(data.fd_used_perc, 25.0);
    EXPECT_EQ(data.proc_used_perc, 25.0);
    EXPECT_DOUBLE_EQ(data.disk_left, 4.95);
    EXPECT_EQ(data.mem_left, 300.0);
    EXPECT_EQ(data.mem_used_perc, 25.0);
    EXPECT_EQ(data.running, 1);
    EXPECT_EQ(rabbit_parse_node_items(R"([{"mem_used":5,"mem_limit":5}])", data), 1);
    EXPECT_EQ(data.mem_left + data.mem_used_perc + data.proc_used_perc + data.disk_left, 0.0);
    EXPECT_EQ(data.running, -1);
    data.processors = 9;
    for (const char* const none : {"[]", "[1]", "{}", "", "nonsense"}) {
        EXPECT_EQ(rabbit_parse_node_items(none, data), 0) << none;
    }
    EXPECT_EQ(data.processors, 0U);
    EXPECT_EQ(data.running, 0);
    EXPECT_EQ(rabbit_parse_queues_items(R"([{"messages":3},7,{"name":"empty"},{"messages":4}])", data), 1);
    EXPECT_EQ(data.queues_count, 3U);
    EXPECT_EQ(data.queues_sum_len, 7U);
    EXPECT_EQ(rabbit_parse_queues_items("{}", data), 0);
    EXPECT_EQ(rabbit_parse_queues_items("[]", data), 1);
    EXPECT_EQ(data.queues_count + data.queues_sum_len, 0U);
}

TEST(Web, ElasticFiguresAreSummedOverThePools) {
    tarn_mycustom_data_elastic data{};
    tarn::copy_text(data.node_name, "n1");
    EXPECT_EQ(
        elastic_parse_node_items(
            R"({"nodes":{"n1":{"thread_pool":{"search":{"queue":2,"active":3},"write":{"queue":65536,"active":1}}}}})",
            data),
        1);
    EXPECT_EQ(data.threads_search_queue * 10 + data.threads_search_active, 23);
    EXPECT_EQ(data.node_queue_size, 2);  // modulo 2^16
    EXPECT_EQ(data.node_active_size, 4);
    testing::internal::CaptureStdout();
    EXPECT_EQ(elastic_parse_node_items(R"({"nodes":{"n1":{"thread_pool":{"search":{"active":3}}}}})", data),
              1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[elastic] Error: 'queue' not found in thread_pool object\n");
    EXPECT_EQ(data.node_queue_size * 10 + data.node_active_size, 3);
    testing::internal::CaptureStdout();
    EXPECT_EQ(elastic_parse_node_items(R"({"nodes":{}})", data), 1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(data.threads_search_active + data.node_active_size, 0);
    data.node_active_size = 5;
    EXPECT_EQ(elastic_parse_node_items("[]", data), 0);
    EXPECT_EQ(data.node_active_size, 0);

    EXPECT_EQ(elastic_parse_cluster_health(
                  R"({"status":"yellow","relocating_shards":1,"unassigned_shards":3})", data),
              1);
    EXPECT_EQ(data.status * 100 + data.relocating_shards * 10 + data.unassigned_shards, 213);
    EXPECT_EQ(elastic_parse_cluster_health(R"({"status":"purple"})", data), 1);
    EXPECT_EQ(data.status, 2);
    EXPECT_EQ(data.unassigned_shards, 0);
    EXPECT_EQ(elastic_parse_cluster_health("x", data), 0);
}
