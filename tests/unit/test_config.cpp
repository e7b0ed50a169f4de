#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "config/tarn_config_files.h"
#include "config/tarn_options.h"
#include "docker/tarn_docker_core.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "support/tarn_text.h"

namespace {

/// A directory of configuration files that is gone after the test.
class Config : public testing::Test {
  protected:
    void SetUp() override {
        stats = {};
        init_config();
        std::string name = "/tmp/tarn-config-XXXXXX";
        directory_ = ::mkdtemp(name.data());
        tarn::copy_text(config.configFile, path("main"));
        tarn::copy_text(config.extConfigPattern, path("*.conf"));
    }
    void TearDown() override {
        docker_free(config.docker);
        std::filesystem::remove_all(directory_);
    }
    std::string path(const std::string& name) { return directory_ + "/" + name; }

    /// Reads the main file with this text; returns "result|printed".
    std::string read(const std::string& text) {
        std::ofstream(path("main")) << text;
        return read();
    }
    static std::string read() {
        testing::internal::CaptureStdout();
        const int result = parse_config();
        return std::to_string(result) + "|" + testing::internal::GetCapturedStdout();
    }
    static std::string options(std::vector<std::string> words) {
        std::vector<char*> argv = {const_cast<char*>("tarn")};
        for (std::string& word : words)
            argv.push_back(word.data());
        testing::internal::CaptureStdout();
        parse_options(static_cast<int>(argv.size()), argv.data());
        return testing::internal::GetCapturedStdout();
    }

  private:
    std::string directory_;
};

constexpr const char* bad_uuid = "ERROR: UUID must be in aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee format\n";
constexpr const char* no_server =
    "ERROR: When using server UUID instead of ID, 'server_name' must be specified\n";
constexpr const char* no_project =
    "ERROR: When using server UUID instead of ID, 'project_name' must be specified\n";
const std::string uuid = "uuid 0000000a-0000-0000-0000-000000000001\n";

}  // namespace

TEST_F(Config, IdentityIsAnIdOrAUuidWithNames) {
    EXPECT_EQ(read("id 42"), "0|");
    EXPECT_EQ(config.shm_key, 42);
    EXPECT_EQ(read(uuid + "server_name s\nproject_name p\n"), "0|");
    EXPECT_EQ(config.shm_key, 11);
    EXPECT_EQ(read(uuid + "server_name\nproject_name\n"), std::string("1|") + no_server + no_project);
    EXPECT_EQ(read(uuid + "project_name p\n"), std::string("1|") + no_server);
    EXPECT_EQ(read("uuid abc\nid 5\n"), std::string("1|") + bad_uuid);
    EXPECT_EQ(config.id, 0U);  // nothing behind a malformed UUID is read
    EXPECT_EQ(read("uuid 1-2-3-4-5\n"), std::string("1|") + bad_uuid);
    EXPECT_EQ(read("uuid\n"), std::string("1|") + bad_uuid);
    config.uuid[0] = '\0';
    EXPECT_EQ(read("# id 5\n"), "1|ERROR: set server id or uuid!\n");
    std::filesystem::remove(path("main"));
    EXPECT_EQ(read(), "1|Config file " + path("main") + " not found!\n");
    std::filesystem::create_directory(path("main"));
    EXPECT_EQ(read(), "1|ERROR: set server id or uuid!\n");
}

TEST_F(Config, UuidGroupsAreTakenModulo32Bits) {
    key_t key = 0;
    EXPECT_EQ(parse_uuid("ffffffff-0000-0000-0000-123400000001", key), 1);
    EXPECT_EQ(key, static_cast<key_t>(0xFFFFFFFE));
    EXPECT_EQ(parse_uuid("1-2-x", key), 0);
    EXPECT_EQ(key, 3);
}

TEST_F(Config, EveryKeySetsItsField) {
    EXPECT_EQ(read("id 4294967290 rest ignored\n\n  \tinterval\t60\nproto TCP\nport 99x\naddress 10.0.0.5\n"
                   "domain a.example\nsecret s\nmysql_connect_to 1\nmysql_read_to 2\nmysql_write_to 3\n"
                   "server_tcp_to 4\ncounter_tcp_to x\nslow_query_sec 7\ncustom_counters_delimiterX 8\n"
                   "custom_uidx 9\ncustom_gid 10\nexclude_tmpfs 1\nproject_secret ps\nunknown 1\nIntervaL 3\n"
                   "docker_sock /a b"),
              "0|Docker socket '/a b'\n");
    EXPECT_EQ(config.id, 4294967290U);
    EXPECT_EQ(config.interval, 60U);
    EXPECT_EQ(config.proto, 17);
    EXPECT_EQ(config.port, 99);
    EXPECT_STREQ(config.defaultServerIp, "10.0.0.5");
    EXPECT_STREQ(config.serverName, "a.example");
    EXPECT_EQ(tarn::text_of(config.secret), "s");
    EXPECT_EQ(config.mysql_connect_to * 100 + config.mysql_read_to * 10 + config.mysql_write_to, 123);
    EXPECT_EQ(config.server_tcp_to, 4);
    EXPECT_EQ(config.counter_tcp_to, 0);
    EXPECT_EQ(tarn::text_of(config.slow_query_sec), "7");
    EXPECT_EQ(config.custom_counters_delimiter, 8);
    EXPECT_EQ(config.custom_default_uid, 9);
    EXPECT_EQ(config.custom_default_gid, 10);
    EXPECT_EQ(config.exclude_tmpfs, 1);
    EXPECT_STREQ(config.project_secret, "ps");
    EXPECT_EQ(config.docker_sock_path, "/a b");
    ASSERT_NE(config.docker, nullptr);
    EXPECT_EQ(config.docker->key, static_cast<key_t>(4294967291));
    EXPECT_STREQ(config.docker->shared().sock_path, "/a b");
    EXPECT_EQ(read("id 1\nproto tcp\ninterval 5\nproto udp\ninterval x\n"), "0|");
    EXPECT_EQ(config.proto, 6);
    EXPECT_EQ(config.interval, 0U);
}

TEST_F(Config, ListsAreBoundedAndAccumulate) {
    std::string text = "id 1\n";
    for (int n = 0; n < 300; ++n) {
        for (const std::string key : {"nameserver ns", "exclude_mount /m", "exclude_interfaces if"}) {
            text += key + std::to_string(n) + "\n";
        }
    }
    std::ofstream(path("b.conf")) << "exclude_mount /late\nexclude_interfaces late\n";
    EXPECT_EQ(read(text), "0|");
    EXPECT_EQ(config.dns_servers_count, 16);
    EXPECT_STREQ(config.dns_servers[15], "ns15");
    EXPECT_EQ(config.path_exclude_masks_count, 256);
    EXPECT_STREQ(config.path_exclude_masks[9], "/run/user/*");
    EXPECT_STREQ(config.path_exclude_masks[10], "/m0");
    EXPECT_STREQ(config.interface_exclude_masks[255], "if255");
    EXPECT_EQ(config.extConfigFiles, std::vector<std::string>{path("b.conf")});
}

TEST_F(Config, CounterLinesAreRegisteredUpToTheCapacityOfTheirFamily) {
    EXPECT_EQ(read("id 1\n  customs a b x\nserver_status\t/bin/s  1\ncustom_uidx 3\n"), "0|");
    EXPECT_EQ(stats.ncustom_counters, 2);
    EXPECT_STREQ(stats.custom_counters[0].cfg_string, "s a b x\n");
    EXPECT_STREQ(stats.custom_counters[1].cfg_string,
                 "general server_status uid=0 gid=0 interval=1 type=11001 \t/bin/s  1\n");
    std::string lines = "id 1\n";
    for (int n = 0; n < 255; ++n)
        lines += "custom a b\n";
    const std::string message = "Too many custom counters (255 at most), line ignored\n";
    EXPECT_EQ(read(lines), "0|" + message + message);
    EXPECT_EQ(read("id 1\nserver_status " + std::string(4000, 'x') + "\nport 5\n"),
              "0|Too many server_status counters (255 at most), line ignored\n");
    EXPECT_EQ(config.port, 5);
}

TEST_F(Config, LongWordsAndLinesAreCut) {
    const std::string word(5000, 'w');
    EXPECT_EQ(read("secret " + word + "\nserver_name " + word + "\nid 3\n" + word + " id 4\n" + word), "0|");
    EXPECT_EQ(tarn::text_of(config.secret), std::string(256, 'w'));
    EXPECT_EQ(tarn::text_of(config.server_name), std::string(99, 'w'));
    EXPECT_EQ(config.id, 3U);
    EXPECT_EQ(read("id 5\n" + std::string(1 << 20, '\xFF') + "\n\0\n"), "0|");
    EXPECT_EQ(config.id, 5U);
}

TEST_F(Config, ExtraFilesAreReadInOrderUpToTheFirstFailure) {
    std::ofstream(path("1.conf")) << "port 1\n";
    std::ofstream(path("2.conf")) << "uuid x\nport 2\n";
    std::ofstream(path("3.conf")) << "port 3\n";
    EXPECT_EQ(read("id 9\n"), std::string("1|") + bad_uuid);
    EXPECT_EQ(config.port, 1);
    EXPECT_EQ(config.extConfigFiles, std::vector<std::string>{path("1.conf")});
}

TEST_F(Config, OptionsAreTakenInOrderAndUnknownOnesNamed) {
    EXPECT_EQ(options({"-vx", "--debug", "word", "--config", "--debug", "--conf-glob", "/x*", "--config"}),
              "Unknown option -vx\nUnknown option word\nConfig file: --debug\nExt config pattern: /x*\n"
              "Option --config needs an argument\n");
    EXPECT_EQ(config.debug, 1);
    EXPECT_STREQ(config.configFile, "--debug");
    EXPECT_EQ(options({"--showconfig", "--showconfig", "--conf-glob"}),
              "Option --conf-glob needs an argument\n");
    EXPECT_EQ(config.showconfigonly, 1);
}
