// Read from a beanstalkd server: the reply to "stats", a line "OK length", a line of dashes, then lines
// "name: value". Only what one read of 4096 bytes brings is looked at.
#include "services/tarn_beanstalk.h"

#include <array>
#include <cinttypes>
#include <cstdio>

#include "record/tarn_rates.h"
#include "services/tarn_service.h"

namespace {

using data_beanstalk = tarn_mycustom_data_beanstalk;

constexpr std::size_t reply_size = 4096;

constexpr tarn::reply_row<data_beanstalk> stat_rows[] = {
    {"uptime:", tarn::as_number_or_0<&data_beanstalk::uptime>},
    {"current-connections:", tarn::as_number_or_0<&data_beanstalk::connections>},
    {"cmd-put:", tarn::as_number_or_0<&data_beanstalk::put>},
    {"cmd-delete:", tarn::as_number_or_0<&data_beanstalk::cdelete>},
    {"job-timeouts:", tarn::as_number_or_0<&data_beanstalk::timeout>},
    {"total-jobs:", tarn::as_number_or_0<&data_beanstalk::jobs>}};

constexpr std::uint64_t data_beanstalk::*rated[] = {&data_beanstalk::put, &data_beanstalk::cdelete,
                                                    &data_beanstalk::connections};

constexpr tarn::bson_row<data_beanstalk> rows[] = {
    {"ok", tarn::as_int64<&data_beanstalk::ok>},
    {"put", tarn::as_int64<&data_beanstalk::put>},
    {"cdelete", tarn::as_int64<&data_beanstalk::cdelete>},
    {"uptime", tarn::as_int64<&data_beanstalk::uptime>},
    {"timeout", tarn::as_int64<&data_beanstalk::timeout>},
    {"connections", tarn::as_int64<&data_beanstalk::connections>}};

/// "HOST:PORT"; the whole word is the id.
void beanstalk_parse_conf(tarn_mycustom_counter& counter, data_beanstalk& data) {
    tarn::copy_text(counter.id, tarn::text_of(counter.cfg_string));
    tarn::service_conf conf(counter, ":");
    conf.word(data.ip);
    data.port = conf.number();
}

bool sample(data_beanstalk& data) {
    const tarn::stream connection = tarn::connect_service(data.ip, data.port);
    if (connection.failed == tarn::stream_step::timeouts) std::printf("setsockopt failed\n");
    if (!connection.socket) return false;
    std::array<char, reply_size> buffer;
    const auto reply = tarn::ask_once(connection.socket, "stats\r\n", buffer);
    if (!reply) return false;
    beanstalk_parse_stats(*reply, data);
    return true;
}

}  // namespace

void beanstalk_parse_stats(std::string_view reply, tarn_mycustom_data_beanstalk& data) {
    // Only the first line may end at a carriage return.
    for (auto line = tarn::next_token(reply, "\r\n"); !line.empty(); line = tarn::next_token(reply, "\n")) {
        tarn::scanner words(line);
        const std::string_view name = words.word();
        tarn::store_named(name, words.rest(), stat_rows, data);
    }
}

int beanstalk_init1(tarn_mycustom_counter& counter) {
    tarn::allocate_records<data_beanstalk>(counter);
    tarn::copy_text(counter.report, "Beanstalk");
    auto& data = tarn::data_of<data_beanstalk>(counter);
    beanstalk_parse_conf(counter, data);
    std::printf("Beanstalk %s init with ip = %s  port = %d \n", counter.id, data.ip, data.port);
    return 1;
}

int beanstalk_update(tarn_mycustom_counter& counter) {
    auto& data = tarn::data_of<data_beanstalk>(counter);
    data.ok = 0;
    data.ok = sample(data) ? 1 : 0;
    return data.ok;
}

int beanstalk_delta(tarn_mycustom_counter& counter, std::uint32_t interval, std::uint64_t iteration) {
    return tarn::delta_per_minute(counter, interval, iteration, rated);
}

int beanstalk_tobson(tarn_mycustom_counter& counter, bson_t& document) {
    return tarn::append_service(counter, document, rows);
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

int beanstalk_free(tarn_mycustom_counter& counter) {
    tarn::release_records<data_beanstalk>(counter);
    return 1;
}
