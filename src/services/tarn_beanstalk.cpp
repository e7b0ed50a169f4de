// Reads beanstalkd's reply to "stats": a line "OK length", a line of dashes, then lines "name: value". Only
// the first 4096 bytes, from one read, are parsed.
#include "services/tarn_beanstalk.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include "services/tarn_service.h"

namespace {

using data_beanstalk = tarn_mycustom_data_beanstalk;
using enum tarn::rule;

constexpr auto figures = tarn::figures_of<data_beanstalk>({
    tarn::reported<&data_beanstalk::ok>("ok"),
    tarn::number_or_0<&data_beanstalk::put, per_minute>("cmd-put:", "put"),
    tarn::number_or_0<&data_beanstalk::cdelete, per_minute>("cmd-delete:", "cdelete"),
    tarn::number_or_0<&data_beanstalk::uptime>("uptime:", "uptime"),
    tarn::number_or_0<&data_beanstalk::timeout>("job-timeouts:", "timeout"),
    tarn::number_or_0<&data_beanstalk::connections, per_minute>("current-connections:", "connections"),
    tarn::number_or_0<&data_beanstalk::jobs>("total-jobs:"),  // not reported
});

/// "HOST:PORT"; the whole word is the id.
void beanstalk_parse_conf(tarn_mycustom_counter& counter, data_beanstalk& data) {
    tarn::copy_terminated(counter.id, tarn::text_of(counter.cfg_string));
    tarn::service_conf conf(counter, ":");
    conf.word(data.ip);
    data.port = conf.number();
}

int beanstalk_init1(tarn_mycustom_counter& counter) {
    auto& data = tarn::allocate_records<data_beanstalk>(counter, "Beanstalk");
    beanstalk_parse_conf(counter, data);
    std::printf("Beanstalk %s init with ip = %s  port = %d \n", counter.id, data.ip, data.port);
    return 1;
}

}  // namespace

void beanstalk_parse_stats(std::string_view reply, tarn_mycustom_data_beanstalk& data) {
    // A carriage return ends the first line only.
    for (auto line = tarn::next_token(reply, "\r\n"); !line.empty(); line = tarn::next_token(reply, "\n")) {
        tarn::scanner words(line);
        const std::string_view name = words.word();
        tarn::store_by_name(name, words.rest(), figures, data);
    }
}

namespace {

bool beanstalk_update(data_beanstalk& data) {
    const tarn::stream connection = tarn::connect_service(data.ip, data.port);
    if (connection.failed == tarn::stream_step::timeouts) std::printf("setsockopt failed\n");
    if (!connection) return false;
    std::array<char, 4096> buffer;
    const auto reply = tarn::ask_once(connection, "stats\r\n", buffer);
    if (!reply) return false;
    tarn::expect_start(*reply, "OK ");
    beanstalk_parse_stats(*reply, data);
    return true;
}

int beanstalk_dump(tarn_mycustom_counter& counter) {
    const auto& delta = tarn::data_delta_of<data_beanstalk>(counter);
    std::printf("MyCustom %s report %s :\n", counter.report, counter.id);
    std::printf("  put/delete/jobs: %" PRIu64 " %" PRIu64 " %" PRIu64 "\n", delta.put, delta.cdelete,
                delta.jobs);
    std::printf("  connections: %" PRIu64 "\n", delta.connections);
    std::printf("  uptime/timeout: %" PRIu64 " %" PRIu64 "\n", delta.uptime, delta.timeout);
    return 1;
}

}  // namespace

const tarn_operations beanstalk_operations = {
    .init = beanstalk_init1,
    .update = tarn::sampled<beanstalk_update>,
    .delta = tarn::delta_by_rules<figures>,
    .tobson = tarn::append_by_id<figures>,
    .dump = beanstalk_dump,
    .free = tarn::free_records<data_beanstalk>,
};
