// The table of the report against the elements that are sent.
#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "captures.h"
#include "config/tarn_config_line.h"
#include "config/tarn_kinds.h"
#include "core/tarn_core.h"
#include "customs/tarn_custom.h"
#include "docker/tarn_docker_core.h"
#include "host/tarn_disk.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "report/tarn_bson.h"
#include "report_table.h"
#include "test_helpers.h"

namespace {

/// "SECTION KEY TYPE" of every element.
using elements = std::set<std::string>;

bson type_of(const bson_iter_t& element) {
    static const std::map<bson_type_t, bson> types = {
        {BSON_TYPE_DOUBLE, bson::float64},    {BSON_TYPE_UTF8, bson::text},
        {BSON_TYPE_DOCUMENT, bson::document}, {BSON_TYPE_ARRAY, bson::array},
        {BSON_TYPE_INT32, bson::int32},       {BSON_TYPE_INT64, bson::int64}};
    return types.at(bson_iter_type(&element));
}

std::string row_of(std::string_view section, std::string_view key, bson type) {
    return std::string(section) + " " + std::string(key) + " " + std::to_string(static_cast<int>(type));
}

/// The elements of one section or of one element in it.
void collect(bson_iter_t& children, std::string section, elements& sent) {
    while (bson_iter_next(&children)) {
        const std::string key = bson_iter_key(&children);
        const bool is_of_every_kind = key == "report" || key == "id";
        const bool is_service = section.starts_with("mycustoms ");
        sent.insert(
            row_of(is_service && is_of_every_kind ? "mycustoms" : section.substr(section.find(' ') + 1), key,
                   type_of(children)));
        if (is_service && key == "report")
            section = "mycustoms " + std::string(bson_iter_utf8(&children, nullptr));
    }
}

void collect_report(elements& sent) {
    const std::set<std::string> single = {"mem", "cpu", "socket"};
    const auto document = stats_to_bson();
    bson_iter_t top;
    bson_iter_init_from_data(&top, document.data(), document.size());
    while (bson_iter_next(&top)) {
        const std::string key = bson_iter_key(&top);
        sent.insert(row_of("", key, type_of(top)));
        bson_iter_t children;
        if (type_of(top) != bson::document && type_of(top) != bson::array) continue;
        bson_iter_recurse(&top, &children);
        if (single.contains(key)) {
            collect(children, key, sent);
            continue;
        }
        while (bson_iter_next(&children)) {
            bson_iter_t element;
            bson_iter_recurse(&children, &element);
            collect(element, key == "mycustoms" ? "mycustoms " : key, sent);
        }
    }
}

/// Host counters with one element in each list.
void set_host() {
    setCoreCounters();
    tarn::allocate_data<tarn_mycustom_data_mount>(stats.core_counters[core_mount], "Mount");
    for (auto& counter : stats.core_counters) {
        if (&counter != &stats.core_counters[core_mount]) counter.init(counter);
    }
    stats.core_counters[core_os].update(stats.core_counters[core_os]);
    auto& mounts = tarn::data_of<tarn_mycustom_data_mount>(stats.core_counters[core_mount]);
    mounts.mibmount_list.push_back({1, "/", 976, 3906, 0.25, 0.5});
    auto& disks = tarn::data_delta_of<tarn_mycustom_data_disk>(stats.core_counters[core_disk]);
    disks.mibdisk_list = {{1, "sda", 1, 2, 3, 4, 5, 6, 7, 50.0F, 1.5F}};
    auto& net = tarn::data_delta_of<tarn_mycustom_data_net>(stats.core_counters[core_net]);
    net.mibnet_list = {{1, "lo", 10, 1000}};
    mounts.ok = disks.ok = net.ok = 1;
}

}  // namespace

TEST(ReportTable, HoldsExactlyTheElementsThatAreSent) {
    elements sent;
    const auto quietly = [](auto call) { printed_by(call); };
    for (const captured_kind& kind : captured_kinds()) {
        quietly([&] {
            tarn_mycustom_counter& counter = configured(kind, 11);
            for (std::size_t step = 0; step < kind.steps.size(); ++step) {
                kind.read(counter, answers_of(kind, step));
                counter.delta(counter, 15, step);
                if (step == 0) counter.delta(counter, 15, 1);
                collect_report(sent);
            }
            counter.free(counter);
            stats = {};
        });
    }
    quietly([&] {
        init_config();
        config.id = 7;
        set_host();
        register_counter(split_config_line("custom a b type=11001 alert=\"x > 1\" interval=1 true\n"));
        tarn_mycustom_counter& script = custom_family().slots[0];
        script.init(script);
        auto& delta = tarn::data_delta_of<tarn_mycustom_data_custom>(script);
        delta.mustBeUpdated = delta.updated = delta.agent_alerts_count = 1;
        EXPECT_EQ(docker_init(config.docker), 1);
        tarn_docker_add_container(*config.docker, "c");
        collect_report(sent);
        config.id = 0;
        collect_report(sent);
        docker_free(config.docker);
        script.free(script);
        freeCounters();
        stats = {};
    });

    elements listed;
    for (const report_section& section : report_sections()) {
        for (const report_row& row : section.rows)
            listed.insert(row_of(section.name, row.key, row.type));
    }
    elements different;
    std::set_symmetric_difference(sent.begin(), sent.end(), listed.begin(), listed.end(),
                                  std::inserter(different, different.end()));
    EXPECT_EQ(different, elements{});
}
