// The configuration files: identity, keys, lists, counter lines, bounds and refusals.
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "config/tarn_config_files.h"
#include "config/tarn_options.h"
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

const std::string bad_uuid = "1|ERROR: UUID must be in aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee format\n";

std::string missing(const std::string& key) {
    return "ERROR: When using server UUID instead of ID, '" + key + "' must be specified\n";
}

}  // namespace

TEST_F(Config, IdentityIsAnIdOrAUuidWithNames) {
    const std::string uuid = "uuid 0000000a-0000-0000-0000-000000000001\n";
    const std::tuple<std::string, std::string, int> rows[] = {
        {"# id 5\n", "1|ERROR: set server id or uuid!\n", 0},
        {"id 42", "0|", 42},
        {uuid, "1|" + missing("server_name") + missing("project_name"), 11},
        {uuid + "project_name p\n", "1|" + missing("server_name"), 11},
        {uuid + "server_name s\nproject_name p\n", "0|", 11},
        {"uuid ffffffff-0000-0000-0000-123400000001", "0|", -2},  // each group modulo 2^32
        {"uuid 1-2-x\nid 5\n", bad_uuid, 3},                      // nothing after a malformed one is read
        {"uuid 1-2-3-4-5\n", bad_uuid, 1},
        {"uuid\n", bad_uuid, 0}};
    for (const auto& [text, outcome, key] : rows) {
        EXPECT_EQ(read(text), outcome) << text;
        EXPECT_EQ(config.shm_key, key) << text;
    }
    tarn::copy_terminated(config.configFile, "/no/such");
    EXPECT_EQ(read(""), "1|Config file /no/such not found!\n");
}

TEST_F(Config, EveryKeySetsItsField) {
    EXPECT_EQ(read("id 4294967290 rest ignored\n\n  \tinterval\t60\nintervals 9\nproto TCP\nport "
                   "99x\naddress 10.0.0.5\n"
                   "domain a.example\nsecret s\nmysql_connect_to 1\nmysql_read_to 2\nmysql_write_to 3\n"
                   "server_tcp_to 4\ncounter_tcp_to x\nslow_query_sec 7\ncustom_counters_delimiterX 8\n"
                   "custom_uidx 9\ncustom_gid 10\nexclude_tmpfs 1\nproject_secret ps\nunknown 1\nIntervaL 3\n"
                   "docker_sock /a b"),
              "0|Docker socket '/a b'\n");
    EXPECT_EQ(fields(config.id, config.interval, config.proto, config.port, config.defaultServerIp,
                     config.serverName, tarn::text_of(config.secret), config.project_secret),
              "4294967290|60|17|99|10.0.0.5|a.example|s|ps");
    EXPECT_EQ(
        fields(config.mysql_connect_to, config.mysql_read_to, config.mysql_write_to, config.server_tcp_to,
               config.counter_tcp_to, tarn::text_of(config.slow_query_sec), config.custom_counters_delimiter,
               config.custom_default_uid, config.custom_default_gid, config.exclude_tmpfs),
        "1|2|3|4|0|7|8|9|10|1");
    EXPECT_EQ(fields(config.docker->key, config.docker->shared().sock_path), "-5|/a b");
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
    EXPECT_EQ(fields(int{stats.ncustom_counters}, stats.custom_counters[0].cfg_string), "2|s a b x\n");
    EXPECT_STREQ(stats.custom_counters[1].cfg_string,
                 "general server_status uid=0 gid=0 interval=1 type=11001 \t/bin/s  1\n");
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
    EXPECT_EQ(read("secret " + word + "\ndomain " + word + "\nserver_name " + word + "\nid 3\n" +
                   std::string(4095, 'w') + "id 4\n"),
              "0|");
    EXPECT_EQ(fields(tarn::text_of(config.secret), config.serverName, config.server_name, config.id),
              fields(std::string(256, 'w'), std::string(255, 'w'), std::string(99, 'w'), 3));
}

TEST_F(Config, ExtraFilesAreReadInOrderUpToTheFirstFailure) {
    write("3.conf", "port 3\n");
    write("2.conf", "uuid x\nport 2\n");
    write("1.conf", "port 1\n");
    EXPECT_EQ(read("id 9\n"), bad_uuid);
    EXPECT_EQ(config.port, 1);
    EXPECT_EQ(config.extConfigFiles, std::vector<std::string>{path("1.conf")});
}

TEST_F(Config, SettingsThatCouldRunScriptsAsRootAreReported) {
    const std::string refused = "0|custom_uid nobody is not a number, scripts run as user 65534\n";
    EXPECT_EQ(read("id 1\ncustom_uid nobody\n"), refused);
    EXPECT_EQ(config.custom_default_uid, 65534);
    std::filesystem::permissions(path("main"), std::filesystem::perms::others_write,
                                 std::filesystem::perm_options::add);
    EXPECT_EQ(read("id 1\n"), "0|WARNING: others than root can write to config file " + path("main") + "\n");
}

TEST_F(Config, AnOptionTakesTheNextWordWhateverItIs) {
    char name[] = "tarn", option[] = "--config";
    char* words[] = {name, option, option, option};
    EXPECT_EQ(printed_by([&] { parse_options(4, words); }),
              "Config file: --config\nOption --config needs an argument\n");
}
