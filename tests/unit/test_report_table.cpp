// The table of the report against the elements that are sent.
#include <algorithm>
#include <iterator>
#include <set>

#include "captures.h"
#include "config/tarn_config_line.h"
#include "config/tarn_kinds.h"
#include "core/tarn_core.h"
#include "customs/tarn_custom.h"
#include "docker/tarn_docker_core.h"
#include "report/tarn_bson.h"
#include "report/tarn_bson_print.h"
#include "report_table.h"
#include "test_helpers.h"

namespace {

/// "SECTION KEY TYPE" of every element.
using elements = std::set<std::string>;

/// The types as print_report() names them, in the order of `bson`.
constexpr const char* type_names[] = {"double", "string", "document", "array", "int32", "int64"};

/// Adds the elements of a printed report. What is null has no type.
void collect(std::istream&& report, elements& sent) {
    static const std::regex form("(\t*)(.*?) : (\\w+) ?(.*)");
    std::string part;
    std::string section;
    std::smatch found;
    for (std::string line; std::getline(report, line);) {
        if (!std::regex_match(line, found, form) || found[3] == "null") continue;
        const std::string key = found[2];
        const std::string key_and_type = key + " " + found[3].str();
        if (found[1].length() == 0) {
            sent.insert(" " + key_and_type);
            part = section = key;
        } else if (found[1].length() == 2 || (found[1].length() == 1 && found[3] != "document")) {
            // The elements of "mycustoms" are of several kinds; each names its kind under "report".
            const bool is_kind = part == "mycustoms" && key == "report";
            const bool is_of_every_kind = is_kind || (part == "mycustoms" && key == "id");
            sent.insert((is_of_every_kind ? part : section) + " " + key_and_type);
            if (is_kind) section = found[4];
        }
    }
}

void collect_report(elements& sent) {
    const auto document = stats_to_bson();
    collect(std::istringstream(printed_by([&] { print_report(document, 0); })), sent);
}

}  // namespace

TEST(ReportTable, HoldsExactlyTheElementsThatAreSent) {
    elements sent;
    for (const char* const host : {"/report.txt", "/report_not_ok.txt"})
        collect(std::ifstream(std::string(GOLDEN_DIR) + host), sent);
    for (const captured_kind& kind : captured_kinds()) {
        tarn_mycustom_counter* counter = nullptr;
        printed_by([&] { counter = &configured(kind, 11); });
        for (std::size_t step = 0; step < kind.steps.size(); ++step) {
            printed_by([&] { kind.read(*counter, answers_of(kind, step)); });
            counter->delta(*counter, 15, step);
            if (step == 0) counter->delta(*counter, 15, 1);
            collect_report(sent);
        }
        counter->free(*counter);
        stats = {};
    }
    init_config();
    register_counter(split_config_line("custom a b type=11001 alert=\"x > 1\" interval=1 true\n"));
    tarn_mycustom_counter& script = custom_family().slots[0];
    script.init(script);
    auto& delta = tarn::data_delta_of<tarn_mycustom_data_custom>(script);
    delta.mustBeUpdated = delta.updated = delta.agent_alerts_count = 1;
    printed_by([] { EXPECT_EQ(docker_init(config.docker), 1); });
    tarn_docker_add_container(*config.docker, "c");
    collect_report(sent);
    docker_free(config.docker);
    script.free(script);
    stats = {};

    elements listed;
    for (const report_section& section : report_sections()) {
        for (const report_row& row : section.rows)
            listed.insert(fields(section.name) + " " + fields(row.key) + " " +
                          type_names[static_cast<std::size_t>(row.type)]);
    }
    elements different;
    std::set_symmetric_difference(sent.begin(), sent.end(), listed.begin(), listed.end(),
                                  std::inserter(different, different.end()));
    EXPECT_EQ(different, elements{});
}
