#include <bson/bson.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "core/tarn_core.h"
#include "host/tarn_cpu.h"
#include "host/tarn_disk.h"
#include "host/tarn_mem.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "host/tarn_os.h"
#include "host/tarn_socket.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "report/tarn_bson.h"
#include "report/tarn_networking.h"
#include "report/tarn_sign.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_text.h"

namespace {

std::string hex(std::span<const std::uint8_t> bytes) {
    std::ostringstream text;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", bytes[at]);
        text << digits << (at % 32 == 31 || at + 1 == bytes.size() ? "\n" : "");
    }
    return text.str();
}

/// Compares with the kept bytes. TARN_REWRITE_GOLDEN=1 in the environment keeps these instead.
void expect_golden(const std::string& name, const std::string& text) {
    const std::string path = std::string(GOLDEN_DIR) + "/" + name;
    if (std::getenv("TARN_REWRITE_GOLDEN") != nullptr) std::ofstream(path) << text;
    std::stringstream kept;
    kept << std::ifstream(path).rdbuf();
    EXPECT_EQ(kept.str(), text);
}

/// The document with its time set to 0.
std::vector<std::uint8_t> without_time(std::span<const std::uint8_t> document) {
    std::vector<std::uint8_t> copy(document.begin(), document.end());
    const std::string key = std::string("\x10time") + '\0';
    const auto found = std::search(copy.begin(), copy.end(), key.begin(), key.end());
    if (found != copy.end()) std::fill_n(found + static_cast<long>(key.size()), 4, 0);
    return copy;
}

template <typename Record>
Record& with_delta(tarn_core_slot slot) {
    tarn::allocate_records<Record>(stats.core_counters[slot]);
    return tarn::data_delta_of<Record>(stats.core_counters[slot]);
}

template <typename Record>
Record& with_data(tarn_core_slot slot) {
    tarn::allocate_records<Record>(stats.core_counters[slot]);
    return tarn::data_of<Record>(stats.core_counters[slot]);
}

class Report : public testing::Test {
  protected:
    void SetUp() override {
        init_config();
        config.id = 7;
        setCoreCounters();
    }
    void TearDown() override { freeCounters(); }
};

}  // namespace

TEST_F(Report, EveryElementOfTheHostByteForByte) {
    auto& os = with_data<tarn_mycustom_data_os>(core_os);
    os = {.ok = 1,
          .os_bit = "x86_64",
          .os_name = "Debian",
          .os_version = "12",
          .open_files = 320,
          .tarn_memory_used = 4321};
    with_delta<tarn_mycustom_data_mem>(core_mem) = {.ok = 1,
                                                    .memtotal = 1,
                                                    .memfree = 2,
                                                    .memused = 3,
                                                    .membuffers = 4,
                                                    .memcached = 5,
                                                    .swaptotal = 6,
                                                    .swapfree = 7,
                                                    .swapused = 8,
                                                    .swapin = 9,
                                                    .swapout = 10};
    with_delta<tarn_mycustom_data_cpu>(core_cpu) = {.ok = 1,
                                                    .lavg = 0.5F,
                                                    .ncpus = 8,
                                                    .user = 1,
                                                    .nice = 2,
                                                    .system = 3,
                                                    .idle = 4,
                                                    .iowait = 5,
                                                    .irq = 6,
                                                    .softirq = 7,
                                                    .steal = 8,
                                                    .guest = 9,
                                                    .cputot = 100};
    with_data<tarn_mycustom_data_socket>(core_socket) = {1, 12, 40, 3, 5};
    auto& mounts = with_data<tarn_mycustom_data_mount>(core_mount);
    mounts.ok = 1;
    mounts.mibmount_list = {{1, "/", 976, 3906, 0.25, 0.5}, {1, "/mnt/\xFF", 0, 0, 0, 0}};
    auto& disks = with_delta<tarn_mycustom_data_disk>(core_disk);
    disks.ok = 1;
    disks.mibdisk_list = {{1, "sda", 1, 2, 3, 4, 5, 6, 7, 50.0F, 1.5F},
                          {0, "sdb", 1, 1, 1, 1, 1, 1, 1, 1, 1}};
    auto& net = with_delta<tarn_mycustom_data_net>(core_net);
    net.ok = 1;
    net.mibnet_list = {{1, "lo", 10, 1000}, {0, "eth0", 1, 1}};
    expect_golden("report.hex", hex(without_time(stats_to_bson())));
}

TEST_F(Report, WhatCouldNotBeSampledIsZeroOrEmpty) {
    for (const tarn_core_slot slot :
         {core_os, core_mem, core_cpu, core_socket, core_mount, core_disk, core_net}) {
        // Every record begins with `ok`, and all of them are 0 here.
        auto& counter = stats.core_counters[slot];
        if (slot == core_mount) continue;  // its init reads this host's mount table
        counter.init(counter);
    }
    tarn::allocate_data<tarn_mycustom_data_mount>(stats.core_counters[core_mount]);
    tarn::data_of<tarn_mycustom_data_cpu>(stats.core_counters[core_cpu]) = {};
    config.id = 0;
    tarn::copy_text(config.uuid, "0000000a-0000-0000-0000-000000000001");
    tarn::copy_text(config.server_name, "s\xE9rver");
    expect_golden("report_not_ok.hex", hex(without_time(stats_to_bson())));
}

TEST_F(Report, FloatsAreWidenedAndBadTextsStayReadable) {
    bson_t document = BSON_INITIALIZER;
    tarn::append_text(document, "t", std::string_view{});
    tarn::append_text(document, "u", "a\xFF");
    tarn::append_no_text(document, "n");
    { tarn::sub_document child(document, "k\xFE"); }
    bson_iter_t element;
    ASSERT_TRUE(bson_iter_init(&element, &document) && bson_iter_next(&element));
    EXPECT_STREQ(bson_iter_utf8(&element, nullptr), "");
    ASSERT_TRUE(bson_iter_next(&element));
    EXPECT_STREQ(bson_iter_utf8(&element, nullptr), "a?");
    ASSERT_TRUE(bson_iter_next(&element));
    EXPECT_TRUE(BSON_ITER_HOLDS_NULL(&element));
    ASSERT_TRUE(bson_iter_next(&element));
    EXPECT_STREQ(bson_iter_key(&element), "k?");
    bson_destroy(&document);
}

TEST_F(Report, PrintedForAReader) {
    stats.ncore_counters = 0;
    testing::internal::CaptureStdout();
    print_report(without_time(stats_to_bson()), 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\t\t\tid : int32 7\n\t\t\tname : string \n\t\t\ttime : int32 0\n\t\t\tinterval : int32 15\n"
              "\t\t\tversion : string 0.6.3\n\t\t\tmemcaches : array\n\t\t\tbeanstalks : array\n"
              "\t\t\tcustom : array\n\t\t\tmysqls : array\n\t\t\tredises : array\n\t\t\tmycustoms : array\n");
}

TEST_F(Report, SignatureIsTheDigestOfDocumentAndSecret) {
    const auto signature = [](std::string_view document, std::string_view secret) {
        const std::vector<std::uint8_t> bytes(document.begin(), document.end());
        const tarn_signature text = signature_of(bytes, secret);
        return std::string(text.begin(), text.end());
    };
    EXPECT_EQ(signature("", "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(signature("a", "bc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(signature("", ""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");

    const std::vector<std::uint8_t> document = {'a'};
    std::vector<std::uint8_t> packet;
    sign(document, packet);
    EXPECT_EQ(packet, document);
    const std::string secret(300, 's');  // fills the field, which then has no terminator
    tarn::fill_text(config.secret, secret);
    sign(document, packet);
    EXPECT_EQ(std::string(packet.begin() + 1, packet.end()), signature("a", secret.substr(0, 256)));
}

TEST(Networking, SuffixesAndNames) {
    EXPECT_EQ(endsWith("a.collector.example", "collector.example"), 1);
    EXPECT_EQ(endsWith("example", "collector.example"), 0);
    EXPECT_EQ(endsWith("collector.example.org", "collector.example"), 0);
    char text[17] = "1.2.3.4";
    EXPECT_EQ(hostname_to_ip("no-such-host.invalid", text), 1);
    EXPECT_STREQ(text, "1.2.3.4");
    EXPECT_EQ(hostname_to_ip("127.0.0.9", text), 0);
    EXPECT_STREQ(text, "127.0.0.9");
}
