// Forks, checks and stops the script process. Signals go through its pidfd, so that none reaches another
// process that got its number.
#include "customs/tarn_customs_process.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "customs/tarn_custom.h"
#include "customs/tarn_customs_core.h"
#include "record/tarn_clock.h"
#include "record/tarn_config.h"
#include "record/tarn_records.h"
#include "support/tarn_process.h"
#include "support/tarn_shared_memory.h"

namespace {

tarn::child_process process;
pid_t process_id = 0;  ///< 0 without scripts; identifies the shared-memory block that the process made
bool has_died = false;

/// Releases the records of the script counters, which a restarted process inherits from the parent.
void release_inherited() {
    for (std::size_t at = 0; at < stats.ncustom_counters; ++at)
        tarn::free_records<tarn_mycustom_data_custom>(stats.custom_counters[at]);
}

/// Runs the script process, whose parent is process `parent`.
void childThread(pid_t parent) {
    // The handler must stay installed: a stop signal to the process group arrives twice, the second time from
    // the parent. The process must also end when the parent dies without stopping it.
    struct sigaction action {};
    ::sigaction(SIGTERM, nullptr, &action);
    action.sa_flags = 0;
    ::sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGCHLD, SIG_DFL);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) stop = 1;
    release_inherited();
    initCustomsCounters(std::time(nullptr));
    ::sleep(1);
    customs_loop();
    freeCustomsCounters();
}

/// Drops the last results of a process that has died, because they would be reported again.
void drop_results() {
    tarn::remove_block_made_by(config.shm_key, process_id);
    for (std::size_t at = 0; at < stats.ncustom_counters; ++at) {
        const tarn_mycustom_counter& counter = stats.custom_counters[at];
        if (counter.data_delta != nullptr) tarn::data_delta_of<tarn_mycustom_data_custom>(counter) = {};
    }
}

}  // namespace

bool start_customs_process() {
    std::fflush(nullptr);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        childThread(parent);
        std::exit(EXIT_SUCCESS);
    }
    if (pid < 0) return false;
    process_id = pid;
    process = tarn::child_process(pid);
    if (!process) std::perror("pidfd_open");
    return true;
}

void watch_customs_process() {
    if (process_id == 0) return;
    if (has_died) {
        has_died = !start_customs_process();
        if (has_died) std::printf("Cannot fork the script process\n");
    } else if (process && process.has_ended()) {
        std::printf("The script process has died, it is started again in the next cycle\n");
        process.reap();
        drop_results();
        has_died = true;
    }
}

void stop_customs_process() {
    constexpr int step_ms = 10;
    // A single signal could arrive just before the process begins to wait, and be missed.
    for (int turn = 0; process && turn < 100; ++turn) {
        process.signal(SIGTERM);
        if (process.wait_end(step_ms)) process.reap();
    }
}
