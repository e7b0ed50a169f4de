// The container engine: requests, statistics messages, the framing of their stream, and the container table.
#include <cmath>

#include "docker/tarn_docker_client.h"
#include "docker/tarn_docker_core.h"
#include "docker/tarn_docker_loop.h"
#include "support/tarn_json_framer.h"
#include "test_helpers.h"

namespace {

const std::string message =
    R"({"read":"x","cpu_stats":{"cpu_usage":{"total_usage":3000000000},"system_cpu_usage":90000000000,"online_cpus":9},)"
    R"("precpu_stats":{"cpu_usage":{"total_usage":2500000000},"system_cpu_usage":88000000000,"online_cpus":2}})";

}  // namespace

TEST(Docker, StatisticsAreReadFromTheFirstObject) {
    docker_stats_t container;
    parse_response("HTTP/1.0 200 OK\r\n\r\n" + message + "\n", container);
    // 0.5 of 2 s, two CPUs.
    EXPECT_EQ(fields(container.ok, container.ncpu, docker_cpu_percent(container)), "1|2|50");
    parse_response("no object", container);
    EXPECT_EQ(container.ok, 0);
    parse_response("{\"cut", container);
    EXPECT_EQ(container.ok, 1);
    EXPECT_TRUE(std::isnan(docker_cpu_percent(container)));
}

TEST(Docker, ObjectsAreReassembledAcrossReads) {
    const std::string tricky = R"({"a":"}{\"\\","b":{"c":[{}]}})";
    const std::string stream = "HTTP/1.0 200 OK\r\n{no\r\n\r\n" + tricky + "\n" + message + "\n";
    EXPECT_EQ(tarn::json_framer().feed(stream), message);  // the newest
    tarn::json_framer bytewise;
    std::string found;
    for (const char c : stream)
        found += bytewise.feed({&c, 1});
    EXPECT_EQ(found, tricky + message);
}

TEST(Docker, OnlyABrokenObjectIsLost) {
    for (const std::string broken : {R"({"cpu_stats":{bad)", R"({"a":"x})", R"({"a":1)"}) {
        tarn::json_framer framer;
        EXPECT_EQ(framer.feed(broken + "\n" + message + "\n"), message) << broken;
        EXPECT_LE(framer.pending(), 1U);
    }
    for (const std::string wide :
         {"{\"a\":\n {\"b\":1}}", "{\"a\":\n{\"b\":1},\"c\":[\n{\"d\":2} ,\n{\"e\":3}]\n}"})
        EXPECT_EQ(tarn::json_framer().feed(wide), wide);
}

TEST(Docker, TheTableHoldsAHundredContainers) {
    init_config();
    config.shm_key = 0x7A51;
    ASSERT_EQ(docker_init(config.docker), 1);
    tarn_docker& docker = *config.docker;
    for (int n = 0; n < 100; ++n)
        EXPECT_EQ(tarn_docker_add_container(docker, std::to_string(n)), n);
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(tarn_docker_add_container(docker, "100"), -1); }),
              "[docker] Max containers number reached: 100, cannot allocate one more\n");
    EXPECT_EQ(tarn_docker_find_container(docker, "99"), 99);
    EXPECT_EQ(fields(tarn_docker_state_name(6), tarn_docker_state_name(-1)), "unknown|unknown");
    docker_free(config.docker);
    EXPECT_EQ(tarn::find_block(0x7A52, 0), -1);
    EXPECT_FALSE(tarn_docker_resolve(config.docker, "1"));
}

TEST(Docker, OnlyValidContainerNamesAreRequested) {
    const auto request = [](const std::string& name) {
        return tarn_docker_request("/containers/", name, "/json").value_or("none");
    };
    expect_table("container_names.txt", request);
    EXPECT_EQ(fields(request(std::string(991, 'n')).size(), request(std::string(992, 'n'))), "1023|none");
}
