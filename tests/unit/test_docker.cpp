// The container engine: requests, statistics messages, the framing of their stream, and the container table.
#include <cmath>

#include "docker/tarn_docker_client.h"
#include "docker/tarn_docker_core.h"
#include "docker/tarn_docker_loop.h"
#include "support/tarn_json_framer.h"
#include "test_helpers.h"

TEST(Docker, StatisticsAreReadFromTheFirstObject) {
    expect_table("container_statistics.txt", [](const std::string& answer) {
        docker_stats_t container;
        parse_response(answer, container);
        const double percent = docker_cpu_percent(container);
        return fields(container.ok, container.ncpu, std::isnan(percent) ? "none" : fields(percent));
    });
}

TEST(Docker, ObjectsAreTakenFromAStreamAndOnlyABrokenOneIsLost) {
    expect_table("container_streams.txt", [](const std::string& stream) {
        tarn::json_framer framer, bytewise;
        const std::string newest(framer.feed(stream));
        std::string all;
        for (const char c : stream)
            all += bytewise.feed({&c, 1});
        return newest + "|" + (all == newest ? "" : all) + "|" + std::to_string(framer.pending());
    });
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
