// The report's bytes, its signature, and the comparison of host names.
#include "core/tarn_core.h"
#include "host/tarn_cpu.h"
#include "host/tarn_disk.h"
#include "host/tarn_mem.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "host/tarn_os.h"
#include "host/tarn_socket.h"
#include "report/tarn_bson.h"
#include "report/tarn_networking.h"
#include "report/tarn_sign.h"
#include "test_helpers.h"

namespace {

/// The report in hexadecimal digits, its time set to 0.
std::string report_digits() {
    const auto document = stats_to_bson();
    std::vector<std::uint8_t> bytes(document.begin(), document.end());
    const std::string_view key("\x10time", 6);
    std::fill_n(std::search(bytes.begin(), bytes.end(), key.begin(), key.end()) + 6, 4, 0);
    std::string text;
    for (const std::uint8_t byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text.append(text.size() % 65 == 64 ? "\n" : "").append(digits);
    }
    return text + "\n";
}

/// Allocates the blocks of a host counter and returns the one to fill.
template <typename Record>
Record& allocated(tarn_core_slot slot, void* tarn_mycustom_counter::*block) {
    tarn::allocate_records<Record>(stats.core_counters[slot], "test");
    return *static_cast<Record*>(stats.core_counters[slot].*block);
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

TEST_F(Report, HostElementsMatchByteForByte) {
    constexpr auto data = &tarn_mycustom_counter::data;
    constexpr auto delta = &tarn_mycustom_counter::data_delta;
    allocated<tarn_mycustom_data_os>(core_os, data) = {1, "x86_64", "Debian", "12", 320, 4321};
    allocated<tarn_mycustom_data_mem>(core_mem, delta) = {1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    allocated<tarn_mycustom_data_cpu>(core_cpu, delta) = {1, 0.5F, 8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 100};
    allocated<tarn_mycustom_data_socket>(core_socket, data) = {1, 12, 40, 3, 5};
    auto& mounts = allocated<tarn_mycustom_data_mount>(core_mount, data);
    mounts.mibmount_list.push_back({1, "/", 976, 3906, 0.25, 0.5});
    mounts.mibmount_list.push_back({1, "/mnt/\xFF", 0, 0, 0, 0});
    auto& disks = allocated<tarn_mycustom_data_disk>(core_disk, delta);
    disks.mibdisk_list = {{1, "sda", 1, 2, 3, 4, 5, 6, 7, 50.0F, 1.5F},
                          {0, "sdb", 1, 1, 1, 1, 1, 1, 1, 1, 1}};
    auto& net = allocated<tarn_mycustom_data_net>(core_net, delta);
    net.mibnet_list = {{1, "lo", 10, 1000}, {0, "eth0", 1, 1}};
    mounts.ok = disks.ok = net.ok = 1;
    expect_golden("report.hex", report_digits());
}

TEST_F(Report, CountersWithoutASampleAreZeroOrEmpty) {
    // No counter has a sample after init. The mount counter's init is left out: it reads this host's table.
    for (auto& counter : stats.core_counters) {
        if (&counter != &stats.core_counters[core_mount]) counter.init(counter);
    }
    tarn::allocate_data<tarn_mycustom_data_mount>(stats.core_counters[core_mount], "Mount");
    tarn::data_of<tarn_mycustom_data_cpu>(stats.core_counters[core_cpu]) = {};
    config.id = 0;
    tarn::copy_terminated(config.uuid, "0000000a-0000-0000-0000-000000000001");
    tarn::copy_terminated(config.server_name, "s\xE9rver");
    expect_golden("report_not_ok.hex", report_digits());
}

TEST_F(Report, SignatureIsTheDigestOfDocumentAndSecret) {
    const auto packet = [](std::string_view document, std::string_view secret) {
        std::vector<std::uint8_t> bytes;
        sign(std::vector<std::uint8_t>(document.begin(), document.end()), secret, bytes);
        return std::string(bytes.begin(), bytes.end());
    };
    EXPECT_EQ(packet("", "abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(packet("a", "bc"), "aa9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(packet("a", ""), "a");
}

TEST(Networking, OnlyTheEndOfANameIsCompared) {
    EXPECT_EQ(fields(endsWith("a.b.example", "b.example"), endsWith("b.example.org", "b.example")), "1|0");
}
