// The top level of the report. Each counter appends its own element.
#include "report/tarn_bson.h"

#include <bson/bson.h>

#include <ctime>

#include "docker/tarn_docker_core.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "record/tarn_walk.h"
#include "support/tarn_bson_append.h"
#include "support/tarn_version.h"

namespace {

struct report_family {
    const char* key;
    tarn_family (*family)();
};

/// The arrays in report order.
constexpr report_family families[] = {{"memcaches", memcache_family}, {"beanstalks", beanstalk_family},
                                      {"custom", custom_family},      {"mysqls", mysql_family},
                                      {"redises", redis_family},      {"mycustoms", mycustom_family}};

void append_identity(bson_t& document) {
    if (config.id != 0) {
        tarn::append_int32(document, "id", static_cast<std::int32_t>(config.id));
        return;
    }
    tarn::append_text(document, "uuid", config.uuid);
    tarn::append_text(document, "server_name", config.server_name);
    tarn::append_text(document, "project_name", config.project_name);
    tarn::append_text(document, "project_secret", config.project_secret);
}

void append_head(bson_t& document) {
    append_identity(document);
    tarn::append_text(document, "name", config.name);
    tarn::append_int32(document, "time", static_cast<std::int32_t>(std::time(nullptr)));
    tarn::append_int32(document, "interval", static_cast<std::int32_t>(config.interval));
    tarn::append_text(document, "version", tarn_version);
}

void append_counters(bson_t& document, const tarn_family& family) {
    for (std::size_t at = 0; at < family.count; ++at) {
        tarn::call_guarded(family.slots[at], [&document](tarn_mycustom_counter& counter) {
            if (counter.tobson != nullptr) counter.tobson(counter, document);
        });
    }
}

/// The containers, if there are any.
void append_docker(bson_t& document) {
    if (config.docker == nullptr || config.docker->containers.empty()) return;
    tarn::sub_document docker(document, "docker");
    for (std::size_t at = 0; at < config.docker->containers.size(); ++at) {
        const tarn_docker_container_t& container = config.docker->containers[at];
        tarn::sub_document element(docker.document(), container.name);
        tarn::append_double(element.document(), "cpu_usage", tarn_docker_cpu_usage(*config.docker, at));
        tarn::append_text(element.document(), "state", tarn_docker_state_name(container.state));
    }
}

}  // namespace

std::span<const std::uint8_t> stats_to_bson() {
    static bson_t document = BSON_INITIALIZER;
    bson_reinit(&document);
    append_head(document);
    append_counters(document, core_family());
    for (const report_family& row : families) {
        tarn::sub_array array(document, row.key);
        append_counters(array.document(), row.family());
    }
    append_docker(document);
    return {bson_get_data(&document), document.len};
}
