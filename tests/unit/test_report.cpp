// The elements that the report has of the host.
#include <span>

#include "core/tarn_core.h"
#include "host/tarn_cpu.h"
#include "host/tarn_disk.h"
#include "host/tarn_mem.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "host/tarn_os.h"
#include "host/tarn_socket.h"
#include "report/tarn_bson.h"
#include "report/tarn_bson_print.h"
#include "test_helpers.h"

namespace {

/// The report as text, with its length and without its time.
std::string report_text() {
    const auto document = stats_to_bson();
    const std::string text = printed_by([&] { print_report(document, 0); });
    return std::regex_replace(text, std::regex("time : int32 [0-9]+"), "time : int32 T") +
           std::to_string(document.size()) + " bytes\n";
}

std::span<tarn_mycustom_counter> counters = stats.core_counters;

/// Initialised host counters that have taken no sample.
class Report : public testing::Test {
  protected:
    void SetUp() override {
        init_config();
        config.id = 7;
        setCoreCounters();
        for (auto& counter : counters)
            counter.init(counter);
        tarn::data_of<tarn_mycustom_data_mount>(counters[core_mount]) = {};
        tarn::data_of<tarn_mycustom_data_cpu>(counters[core_cpu]) = {};
    }
    void TearDown() override { freeCounters(); }
};

}  // namespace

TEST_F(Report, HostElementsHaveTheirOrderAndTypes) {
    tarn::data_of<tarn_mycustom_data_os>(counters[core_os]) = {1, "x86_64", "Debian", "12", 320, 4321};
    tarn::data_delta_of<tarn_mycustom_data_mem>(counters[core_mem]) = {1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    tarn::data_delta_of<tarn_mycustom_data_cpu>(counters[core_cpu]) = {1, 0.5F, 8, 1, 2, 3,  4,
                                                                       5, 6,    7, 8, 9, 100};
    tarn::data_of<tarn_mycustom_data_socket>(counters[core_socket]) = {1, 12, 40, 3, 5};
    auto& mounts = tarn::data_of<tarn_mycustom_data_mount>(counters[core_mount]);
    mounts.mibmount_list.push_back({1, "/", 976, 3906, 0.25, 0.5});
    mounts.mibmount_list.push_back({1, "/mnt/\xFF", 0, 0, 0, 0});
    auto& disks = tarn::data_delta_of<tarn_mycustom_data_disk>(counters[core_disk]);
    disks.mibdisk_list = {{1, "sda", 1, 2, 3, 4, 5, 6, 7, 50.0F, 1.5F},
                          {0, "sdb", 1, 1, 1, 1, 1, 1, 1, 1, 1}};
    auto& net = tarn::data_delta_of<tarn_mycustom_data_net>(counters[core_net]);
    net.mibnet_list = {{1, "lo", 10, 1000}, {0, "eth0", 1, 1}};
    mounts.ok = disks.ok = net.ok = 1;
    expect_golden("report.txt", report_text());
}

TEST_F(Report, CountersWithoutASampleAreZeroOrEmpty) {
    tarn::data_delta_of<tarn_mycustom_data_mem>(counters[core_mem]) = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    tarn::data_of<tarn_mycustom_data_mount>(counters[core_mount])
        .mibmount_list.push_back({1, "/", 976, 3906, 0.25, 0.5});
    config.id = 0;
    tarn::copy_terminated(config.uuid, "0000000a-0000-0000-0000-000000000001");
    tarn::copy_terminated(config.server_name, "s\xE9rver");
    expect_golden("report_not_ok.txt", report_text());
}
