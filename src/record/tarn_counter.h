#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// A BSON document. Only code that appends to one needs the headers of libbson.
using bson_t = struct _bson_t;  // NOLINT(bugprone-reserved-identifier): the library's own name

struct tarn_mycustom_counter;

/// The seven operations of a counter kind. All return 1 for success and 0 for failure or nothing done; the
/// walkers of the core ignore the results. An exception from one costs only that counter.

/// Called once before the first cycle: allocates the three data blocks, sets `report`, reads `cfg_string`.
using mycustom_init = int (*)(tarn_mycustom_counter& counter);
/// Called on cycles that fall on a whole minute, for kinds that must reconnect or rediscover.
using mycustom_reinit = int (*)(tarn_mycustom_counter& counter);
/// Takes one raw sample into `data`; 1 when a sample was taken.
using mycustom_update = int (*)(tarn_mycustom_counter& counter);
/// Computes `data_delta` from `data` and `data_prev`, then copies `data` into `data_prev`. `interval` is the
/// report interval in seconds; `iteration` is the number of the cycle, 0 when there is no previous sample.
using mycustom_delta = int (*)(tarn_mycustom_counter& counter, std::uint32_t interval,
                               std::uint64_t iteration);
/// Appends the reported values to the open container of the report, which it leaves open.
using mycustom_tobson = int (*)(tarn_mycustom_counter& counter, bson_t& document);
/// Prints the values in readable form; called in debug mode only.
using mycustom_dump = int (*)(tarn_mycustom_counter& counter);
/// Releases what init and later operations allocated.
using mycustom_free = int (*)(tarn_mycustom_counter& counter);

/// The operations of one kind; an absent one is null and is skipped by the walkers.
struct tarn_operations {
    mycustom_init init = nullptr;
    mycustom_reinit reinit = nullptr;
    mycustom_update update = nullptr;
    mycustom_delta delta = nullptr;
    mycustom_tobson tobson = nullptr;
    mycustom_dump dump = nullptr;
    mycustom_free free = nullptr;
};

/// One monitored thing: the host's CPU, one server, one script. The core never knows its kind.
struct tarn_mycustom_counter {
    char cfg_string[2048];     ///< configuration text; unterminated when 2048 characters long
    char report[256];          ///< report (group) name; the counter's name in dumps
    char id[256];              ///< name of this instance within its report
    char user[256];            ///< login name, for services that need one
    char password[256];        ///< password, for services that need one
    char exec[2048];           ///< command line of a script counter
    char alert_condition[50];  ///< alert condition of a script counter; empty when it has none
    int interval;              ///< script counter: period, in agent cycles
    int uid;                   ///< script counter: user id to run as
    int gid;                   ///< script counter: group id
    int let;                   ///< script counter: always 0, not read
    int get;                   ///< script counter: always 0, not read
    int max_seconds;           ///< script counter: time-out, seconds
    int incremental;           ///< script counter: the value is a running total; its increase is reported
    int type;                  ///< script counter: type code
    void* data;                ///< the latest raw sample, a tarn_mycustom_data_<kind>; see tarn_records.h
    void* data_prev;           ///< the previous raw sample
    void* data_delta;          ///< the computed values that are reported and dumped
    mycustom_init init;
    mycustom_reinit reinit;
    mycustom_update update;
    mycustom_delta delta;
    mycustom_tobson tobson;
    mycustom_dump dump;
    mycustom_free free;
};

/// The slots of the host counters in `core_counters`.
enum tarn_core_slot : std::size_t {
    core_os,
    core_mem,
    core_cpu,
    core_socket,
    core_mount,
    core_disk,
    core_net,
    core_slot_count
};

/// Every counter of the agent, in seven families. Counts are single bytes.
struct tarn_stats {
    std::uint8_t ok;  ///< status byte, not read
    std::uint8_t ncore_counters;
    tarn_mycustom_counter core_counters[core_slot_count];
    std::uint8_t nmysql_counters;
    tarn_mycustom_counter mysql_counters[16];
    std::uint8_t ncustom_counters;
    tarn_mycustom_counter custom_counters[256];
    std::uint8_t nmycustoms;
    tarn_mycustom_counter mycustom_counters[32];
    std::uint8_t nmemcache_counters;
    tarn_mycustom_counter memcache_counters[16];
    std::uint8_t nbeanstalk_counters;
    tarn_mycustom_counter beanstalk_counters[16];
    std::uint8_t nredis_counters;
    tarn_mycustom_counter redis_counters[16];
};

/// The agent's only statistics record, zero-filled at load.
extern tarn_stats stats;

/// One family of `stats`: its slots and the number of them in use.
struct tarn_family {
    std::span<tarn_mycustom_counter> slots;
    std::uint8_t& count;

    /// The most counters that the configuration may name: the number of slots, but at most 255, which is all
    /// that `count` can hold.
    [[nodiscard]] std::size_t capacity() const;
};

tarn_family core_family();
tarn_family mysql_family();
tarn_family custom_family();
tarn_family mycustom_family();
tarn_family memcache_family();
tarn_family beanstalk_family();
tarn_family redis_family();

/// Binds a counter to its configuration text (cut to 2048 characters) and its operations. Always returns 1.
int mycustom_set(tarn_mycustom_counter& cnt, std::string_view cfg_string, const tarn_operations& operations);

/// Binds the family's next free slot as mycustom_set() does and counts it. The capacity is not checked here.
void mycustom_register(tarn_family family, std::string_view cfg_string, const tarn_operations& operations);
