// The configuration files: identity, keys, lists, counter lines, bounds and refusals.
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "config/tarn_config_files.h"
#include "docker/tarn_docker_core.h"
#include "test_helpers.h"

namespace {

/// A directory of configuration files that is removed after the test.
class Config : public testing::Test {
  protected:
    void SetUp() override {
        stats = {};
        init_config();
        std::string name = "/tmp/tarn-config-XXXXXX";
        directory_ = ::mkdtemp(name.data());
        tarn::copy_terminated(config.configFile, path("main"));
        tarn::copy_terminated(config.extConfigPattern, path("*.conf"));
    }
    void TearDown() override {
        docker_free(config.docker);
        std::filesystem::remove_all(directory_);
    }
    std::string path(const std::string& name) { return directory_ + "/" + name; }
    void write(const std::string& name, const std::string& text) { std::ofstream(path(name)) << text; }

    /// Reads the configuration with this text in the main file; returns "result|printed".
    std::string read(const std::string& text) {
        write("main", text);
        int result = -1;
        const std::string printed = printed_by([&result] { result = parse_config(); });
        return fields(result, printed);
    }

  private:
    std::string directory_;
};

}  // namespace

TEST_F(Config, IdentityIsAnIdOrAUuidWithNames) {
    // Each group of a UUID is taken modulo 2^32, and nothing after a malformed one is read.
    expect_table("identities.txt", [this](const std::string& text) {
        const std::string outcome = read(text);
        return fields(outcome, config.shm_key);
    });
}

TEST_F(Config, EveryKeySetsItsField) {
    tarn::copy_terminated(config.configFile, GOLDEN_DIR "/settings.conf");
    EXPECT_EQ(read(""), "0|Docker socket '/a b'\n");
    EXPECT_EQ(fields(config.id, config.interval, config.proto, config.port, config.defaultServerIp,
                     config.serverName, tarn::text_of(config.secret), config.project_secret),
              "4294967290|60|17|99|10.0.0.5|a.example|s|ps");
    EXPECT_EQ(
        fields(config.mysql_connect_to, config.mysql_read_to, config.mysql_write_to, config.server_tcp_to,
               config.counter_tcp_to, tarn::text_of(config.slow_query_sec), config.custom_counters_delimiter,
               config.custom_default_uid, config.custom_default_gid, config.exclude_tmpfs,
               tarn::text_of(config.mysql_lib), tarn::text_of(config.postgre_lib), config.apacheSlashed),
        "1|2|3|4|0|7|8|9|10|1|my.so|pq.so|7");
    EXPECT_EQ(fields(config.docker->key, config.docker->shared().sock_path), "-5|/a b");
    tarn::copy_terminated(config.configFile, path("main"));
    EXPECT_EQ(read("id 1\nproto tcp\ninterval 5\nproto udp\ninterval x\n"), "0|");
    EXPECT_EQ(fields(config.proto, config.interval), "6|0");
}

TEST_F(Config, ListsAreBoundedAndAccumulate) {
    std::string text = "id 1\n";
    for (int n = 0; n < 300; ++n) {
        for (const std::string key : {"nameserver ns", "exclude_mount /m", "exclude_interfaces if"})
            text += key + std::to_string(n) + "\n";
    }
    write("b.conf", "exclude_mount /late\nexclude_interfaces late\n");
    EXPECT_EQ(read(text), "0|");
    EXPECT_EQ(fields(config.dns_servers_count, config.dns_servers[15]), "16|ns15");
    EXPECT_EQ(fields(config.path_exclude_masks_count, config.path_exclude_masks[9],
                     config.path_exclude_masks[10], config.interface_exclude_masks[255]),
              "256|/run/user/*|/m0|if255");
}

TEST_F(Config, CounterLinesAreRegisteredUpToTheCapacityOfTheirFamily) {
    EXPECT_EQ(read("id 1\n  customs a b x\nserver_status\t/bin/s  1\ncustom_uidx 3\n"), "0|");
    const auto& scripts = stats.custom_counters;
    EXPECT_EQ(fields(int{stats.ncustom_counters}, scripts[0].cfg_string, scripts[1].cfg_string),
              "2|s a b x\n|general server_status uid=0 gid=0 interval=1 type=11001 \t/bin/s  1\n");
    std::string lines = "id 1\n";
    for (int n = 0; n < 255; ++n)
        lines += n < 17 ? "custom a b\nredis_a\n" : "custom a b\n";
    const std::string message = "Too many custom counters (255 at most), line ignored\n";
    EXPECT_EQ(read(lines), "0|Too many redis_ counters (16 at most), line ignored\n" + message + message);
    EXPECT_EQ(read("id 1\nserver_status " + std::string(4000, 'x') + "\nport 5\n"),
              "0|Too many server_status counters (255 at most), line ignored\n");
    EXPECT_EQ(config.port, 5);
}

TEST_F(Config, LongWordsAndLinesAreCut) {
    const std::string word(5000, 'w');
    const std::string line = word.substr(0, 4094);  // what fits beside the line feed
    EXPECT_EQ(read("secret " + word + "\ndomain " + word + "\nserver_name " + word + "\n" + line +
                   "\nid 3\n" + line + "id 4\n" + line + "wid 5\n"),
              "0|");
    EXPECT_EQ(fields(tarn::text_of(config.secret), config.serverName, config.server_name, config.id),
              fields(std::string(256, 'w'), std::string(255, 'w'), std::string(99, 'w'), 3));
}

TEST_F(Config, ExtraFilesAreReadInOrderUpToTheFirstFailure) {
    write("3.conf", "port 3\n");
    write("2.conf", "uuid x\nport 2\n");
    write("1.conf", "port 1\n");
    EXPECT_TRUE(read("id 9\n").starts_with("1|ERROR: UUID must be"));
    EXPECT_EQ(config.port, 1);
    EXPECT_EQ(config.extConfigFiles, std::vector<std::string>{path("1.conf")});
}

TEST_F(Config, SettingsThatCouldRunScriptsAsRootAreReported) {
    EXPECT_EQ(read("id 1\ncustom_uid nobody\n"),
              "0|custom_uid nobody is not a number, scripts run as user 65534\n");
    EXPECT_EQ(config.custom_default_uid, 65534);
    std::filesystem::permissions(path("main"), std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::add);
    EXPECT_EQ(read("id 1\n"), "0|WARNING: others than root can write to config file " + path("main") + "\n");
}
