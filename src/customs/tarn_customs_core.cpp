// The script process runs the scripts on their own periods and passes their results to the parent in a block
// of shared memory, one slot per script counter in the order of the family.
#include "customs/tarn_customs_core.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "customs/tarn_custom.h"
#include "record/tarn_clock.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "record/tarn_walk.h"
#include "support/tarn_shared_memory.h"

namespace {

using data_custom = tarn_mycustom_data_custom;

std::size_t block_size() {
    return stats.ncustom_counters * sizeof(data_custom);
}

/// The slot of a script counter in an attached block.
char* slot_of(const tarn::attached_block& block, std::size_t at) {
    return static_cast<char*>(block.get()) + at * sizeof(data_custom);
}

/// The id of the block: the one claimed before while it exists, else a new one. An id of 0 counts as a
/// failure.
int publishing_block() {
    static int claimed = -1;
    if (claimed >= 1 && tarn::find_block(config.shm_key, block_size()) == claimed) return claimed;
    claimed = tarn::claim_block(config.shm_key, block_size());
    if (claimed >= 1) return claimed;
    std::perror("shmget");
    tarn::remove_block(config.shm_key);
    claimed = tarn::claim_block(config.shm_key, block_size());
    return claimed;
}

void publish() {
    const tarn::attached_block block(publishing_block());
    if (!block) return;
    for (std::size_t at = 0; at < stats.ncustom_counters; ++at) {
        const void* const result = stats.custom_counters[at].data_delta;
        if (result != nullptr) std::memcpy(slot_of(block, at), result, sizeof(data_custom));
    }
}

int update_if_due(tarn_mycustom_counter& counter, std::uint64_t iteration) {
    if (counter.update == nullptr) return 0;
    auto& data = tarn::data_of<data_custom>(counter);
    data.updated = 0;
    data.mustBeUpdated = iteration % static_cast<std::uint64_t>(counter.interval) == 0 ? 1 : 0;
    return data.mustBeUpdated != 0 ? counter.update(counter) : 0;
}

/// What is kept from one cycle to the next.
struct loop_state {
    std::uint64_t iteration = 0;
    int updatedCount = 0;  ///< scripts that ran successfully in the last cycle
};

void run_cycle(long now, loop_state& state) {
    trace("Customs loop iteration at %ld\n", now);
    if (state.updatedCount != 0 && state.iteration != 0) {
        if (config.debug != 0) dumpCustomsCounters();
        publish();
    }
    state.updatedCount = updateCustomsCounters(state.iteration);
    deltaCustomsCounters(state.iteration);
    trace("Customs loop iteration done at %ld\n", std::time(nullptr));
    state.iteration = next_iteration(state.iteration);
}

}  // namespace

void initCustomsCounters(long now) {
    trace("Init counters CHILD at %ld: ", now);
    tarn::visit("customs... ", custom_family(), tarn::call<&tarn_mycustom_counter::init>);
    trace("done\n");
}

int updateCustomsCounters(std::uint64_t iteration) {
    trace("Update counters CHILD: customs iteration=%" PRIu64 "...\n", iteration);
    int updated = 0;
    tarn::visit("", custom_family(), [&](tarn_mycustom_counter& counter) {
        // After a stop signal the results of this cycle will not be published.
        if (stop == 0) updated += update_if_due(counter, iteration);
    });
    trace("done(isUpdated = %d)\n", updated);
    return updated;
}

void deltaCustomsCounters(std::uint64_t iteration) {
    tarn::visit("Calc delta CHILD: customs... ", custom_family(),
                tarn::call_delta{config.interval, iteration});
    trace("done\n");
}

void dumpCustomsCounters() {
    tarn::visit("Dump delta CHILD: customs...\n", custom_family(), tarn::call<&tarn_mycustom_counter::dump>);
    trace("done\n");
}

void freeCustomsCounters() {
    tarn::visit("Freeing counters: CHILD customs... ", custom_family(),
                tarn::call<&tarn_mycustom_counter::free>);
    trace("done\n");
}

int customs_loop() {
    trace("Starting customs loop\n");
    loop_state state;
    cycle_clock clock;
    while (stop == 0) {
        const long now = std::time(nullptr);
        if (clock.is_due(now)) run_cycle(now, state);
        sleep_one_turn(writer_margin_ms);
    }
    trace("Exiting customs loop\n");
    trace("clear shm\n");
    clear_shm();
    return 0;
}

void clear_shm() {
    if (stats.ncustom_counters > 0) tarn::remove_block(config.shm_key);
}

void read_customs_results() {
    if (stats.ncustom_counters == 0) return;
    const int id = tarn::find_block(config.shm_key, block_size());
    if (id < 0) return;
    const tarn::attached_block block(id);
    if (!block) return;
    for (std::size_t at = 0; at < stats.ncustom_counters; ++at) {
        const tarn_mycustom_counter& counter = stats.custom_counters[at];
        if (counter.data_delta == nullptr) continue;
        auto& result = tarn::data_delta_of<data_custom>(counter);
        std::memcpy(&result, slot_of(block, at), sizeof result);
        custom_sanitize(result);
    }
}
