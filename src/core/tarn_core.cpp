// The parent's cycle. The order of the families and the texts of the trace differ from walker to walker.
#include "core/tarn_core.h"

#include <chrono>
#include <ctime>

#include "core/tarn_sampling.h"
#include "customs/tarn_customs_core.h"
#include "customs/tarn_customs_process.h"
#include "docker/tarn_docker_core.h"
#include "host/tarn_cpu.h"
#include "host/tarn_disk.h"
#include "host/tarn_mem.h"
#include "host/tarn_mount.h"
#include "host/tarn_net.h"
#include "host/tarn_os.h"
#include "host/tarn_socket.h"
#include "record/tarn_budget.h"
#include "record/tarn_clock.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "record/tarn_trace.h"
#include "record/tarn_walk.h"
#include "report/tarn_bson.h"
#include "report/tarn_bson_print.h"
#include "report/tarn_networking.h"

namespace {

/// Seconds by which the parent samples after the script process, so that its results are ready.
constexpr long parent_lag = 2;

/// How long a cycle may wait for services, container engine and filesystems altogether: half the interval.
std::chrono::milliseconds max_waits() {
    return std::chrono::milliseconds(std::chrono::seconds(config.interval)) / 2;
}

}  // namespace

void setCoreCounters() {
    struct {
        tarn_core_slot slot;
        const tarn_operations* operations;
    } static constexpr rows[] = {{core_os, &os_operations},       {core_mem, &mem_operations},
                                 {core_cpu, &cpu_operations},     {core_socket, &socket_operations},
                                 {core_mount, &mount_operations}, {core_disk, &disk_operations},
                                 {core_net, &net_operations}};
    trace("set core counters... ");
    for (const auto& row : rows)
        mycustom_set(stats.core_counters[row.slot], {}, *row.operations);
    stats.ncore_counters = core_slot_count;
    trace("done\n");
}

void initCounters(long now) {
    constexpr auto init = tarn::call<&tarn_mycustom_counter::init>;
    trace("Init counters parent at %ld: ", now);
    tarn::visit("customs... ", custom_family(), init);
    tarn::visit("done, core... ", core_family(), init);
    trace("done, mysqls... ");
    if (config.mysql_handle != nullptr) {
        tarn::visit("", mysql_family(), init);
    } else {
        trace("none(no mysql_handle)... ");
    }
    tarn::visit("done, mycustoms... ", mycustom_family(), init);
    tarn::visit("done, memcaches... ", memcache_family(), init);
    tarn::visit("done, beanstalks... ", beanstalk_family(), init);
    tarn::visit("done, redises... ", redis_family(), init);
    trace("done\n");
}

void reinitCounters(long now) {
    constexpr auto reinit = tarn::call<&tarn_mycustom_counter::reinit>;
    trace("Reinit counters at %ld: ", now);
    tarn::visit("core... ", core_family(), reinit);
    tarn::visit("done, mysqls... ", mysql_family(), reinit);
    tarn::visit("done, mycustoms... ", mycustom_family(), reinit);
    tarn::visit("done, memcaches... ", memcache_family(), reinit);
    tarn::visit("done, beanstalkss... ", beanstalk_family(), reinit);
    tarn::visit("done, redises... ", redis_family(), reinit);
    trace("done\n");
}

void updateCounters() {
    static sampling_order order;
    const auto ask_service = [](tarn_mycustom_counter& counter) { order.ask_in_place(counter); };
    const auto ask_host = [](tarn_mycustom_counter& counter) {
        if (stop == 0) tarn::call<&tarn_mycustom_counter::update>(counter);
    };
    const auto waits = max_waits();
    tarn::budget.begin_cycle(waits);
    order.begin({mysql_family(), memcache_family(), beanstalk_family(), redis_family(), mycustom_family()},
                waits);
    tarn_docker_begin_cycle(config.docker, waits);
    const bool engine_first = config.docker == nullptr || !config.docker->was_silent;
    if (engine_first) tarn_docker_update(config.docker);
    tarn::budget.begin_exchange(order.expected(), tarn::slot_of_living);
    tarn::visit("update: core... ", core_family(), ask_host);
    tarn::visit("done, mysqls... ", mysql_family(), ask_service);
    tarn::visit("done, memcaches... ", memcache_family(), ask_service);
    tarn::visit("done, beanstalks... ", beanstalk_family(), ask_service);
    tarn::visit("done, redises... ", redis_family(), ask_service);
    tarn::visit("done, mycustoms... ", mycustom_family(), ask_service);
    order.ask_slow();
    if (!engine_first) tarn_docker_update(config.docker);
    order.ask_silent();
    tarn_docker_end_cycle(config.docker);
    tarn::budget.end_cycle();
    trace("done, customs PARENT... %ld", std::time(nullptr));
    watch_customs_process();
    read_customs_results();
    trace("done\n");
}

void deltaCounters(std::uint64_t iteration) {
    const tarn::call_delta delta{config.interval, iteration};
    tarn::visit("Calc delta: core... ", core_family(), delta);
    tarn::visit("done, mysqls... ", mysql_family(), delta);
    tarn::visit("done, mycustoms... ", mycustom_family(), delta);
    tarn::visit("done, memcaches... ", memcache_family(), delta);
    tarn::visit("done, beanstalkss... ", beanstalk_family(), delta);
    tarn::visit("done, redises... ", redis_family(), delta);
    trace("done\n");
}

void dumpCounters() {
    constexpr auto dump = tarn::call<&tarn_mycustom_counter::dump>;
    tarn::visit("Dump delta: core...\n", core_family(), dump);
    tarn::visit("done, mysqls... ", mysql_family(), dump);
    tarn::visit("done, customs...\n", custom_family(), dump);
    tarn::visit("done, mycustoms...\n", mycustom_family(), [](tarn_mycustom_counter& counter) {
        if (counter.delta != nullptr) counter.dump(counter);
    });
    tarn::visit("done, memcaches... ", memcache_family(), dump);
    tarn::visit("done, beanstalks... ", beanstalk_family(), dump);
    tarn::visit("done, redises... ", redis_family(), dump);
    trace("done\n");
}

void freeCounters() {
    constexpr auto free = tarn::call<&tarn_mycustom_counter::free>;
    tarn::visit("Freeing counters: core... ", core_family(), free);
    tarn::visit("done, mysqls... ", mysql_family(), free);
    tarn::visit("done, PARENT customs... ", custom_family(), free);
    tarn::visit("done, mycustoms... ", mycustom_family(), free);
    tarn::visit("done, memcaches... ", memcache_family(), free);
    tarn::visit("done, beanstalks... ", beanstalk_family(), free);
    tarn::visit("done, redises... ", redis_family(), free);
    trace("done\n");
}

std::uint64_t run_cycle(long t, std::uint64_t iteration) {
    trace("Main loop iteration at %ld\n", t);
    const tarn::deadline next_cycle = before_next_cycle(t + parent_lag);
    if (t % 60 == 0) reinitCounters(t);
    updateCounters();
    // The signal may have cut the walk short, and a report of half the counters would be wrong.
    if (stop != 0) return iteration;
    deltaCounters(iteration);
    if (config.debug != 0) dumpCounters();
    if (iteration == 0) return 1;

    const auto report = stats_to_bson();
    if (config.debug != 0) print_report(report, 3);
    send_data(report, next_cycle);
    return next_iteration(iteration);
}

int main_loop() {
    trace("Starting main loop\n");
    std::uint64_t iteration = 0;
    cycle_clock clock;
    while (stop == 0) {
        const long t = std::time(nullptr) - parent_lag;
        if (clock.is_due(t)) iteration = run_cycle(t, iteration);
        sleep_one_turn(reader_margin_ms);
    }
    trace("Exiting main loop\n");
    return 0;
}
