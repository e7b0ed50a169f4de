// CPU time and memory of the agent's two processes at an interval of one second, compared with a process that
// only opens, reads and closes the same files once a second.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_host.h"
#include "bench_peer.h"
#include "captures.h"

namespace {

struct usage {
    double cpu_us = 0;  ///< since the start of the process
    long resident_kib = 0;
    long proportional_kib = 0;
};

usage& operator+=(usage& sum, const usage& other) {
    sum.cpu_us += other.cpu_us;
    sum.resident_kib += other.resident_kib;
    sum.proportional_kib += other.proportional_kib;
    return sum;
}

std::string proc(pid_t pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

usage usage_of(pid_t pid) {
    usage found;
    std::ifstream(proc(pid, "schedstat")) >> found.cpu_us;
    found.cpu_us /= 1000;
    std::ifstream rollup(proc(pid, "smaps_rollup"));
    for (std::string word; rollup >> word;) {
        if (word == "Rss:") rollup >> found.resident_kib;
        if (word == "Pss:") rollup >> found.proportional_kib;
    }
    return found;
}

/// The usage of a process and its children.
usage usage_of_family(pid_t pid) {
    usage sum = usage_of(pid);
    std::ifstream children(proc(pid, ("task/" + std::to_string(pid) + "/children").c_str()));
    for (pid_t child = 0; children >> child;)
        sum += usage_of(child);
    return sum;
}

pid_t start_agent(const std::string& config, const std::string& services = {}) {
    std::ofstream(config) << "id 1650811758\naddress 127.0.0.1\nport 9\ninterval 1\nsecret s\n" << services;
    std::fflush(stdout);  // else the new process prints it again
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    if (std::freopen("/dev/null", "w", stdout) == nullptr) ::_exit(127);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) ::_exit(127);
    ::execl(AGENT, AGENT, "--config", config.c_str(), "--conf-glob", "/no/such", nullptr);
    ::_exit(127);
}

/// Starts the process to compare with, which wakes once a second as the agent does.
pid_t start_floor(const std::vector<std::string>& mounts) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    for (;;) {
        ::sleep(1);
        read_same_files(mounts);
    }
}

/// Sleeps until so many milliseconds before the next second, in which an agent takes its samples.
void sleep_until_before_second(long milliseconds) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    constexpr long second = 1'000'000'000;
    const timespec wait{1, second - now.tv_nsec - milliseconds * 1'000'000};
    const timespec normal{wait.tv_sec + wait.tv_nsec / second, wait.tv_nsec % second};
    ::nanosleep(&normal, nullptr);
}

std::string replaced(std::string line, int port) {
    return line.replace(line.find("@port@"), 6, std::to_string(port)) + "\n";
}

void end(pid_t pid) {
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
}

}  // namespace

void print_agent_cost() {
    constexpr unsigned warm_up = 4;
    constexpr unsigned seconds = 20;
    const std::string config = "/tmp/tarn-bench-" + std::to_string(::getpid()) + ".conf";
    const pid_t agent = start_agent(config);
    const pid_t floor = start_floor(measured_mounts());
    ::sleep(warm_up);
    const usage agent_before = usage_of_family(agent);
    const usage floor_before = usage_of(floor);
    ::sleep(seconds);
    const usage agent_after = usage_of_family(agent);
    const usage floor_after = usage_of(floor);
    end(agent);
    end(floor);
    std::filesystem::remove(config);
    std::printf(
        "\none sample a second, both processes: %.0f us of CPU; same files read by one process: %.0f us\n",
        (agent_after.cpu_us - agent_before.cpu_us) / seconds,
        (floor_after.cpu_us - floor_before.cpu_us) / seconds);
    std::printf("memory of both processes: %ld KiB resident, %ld KiB proportional\n",
                agent_after.resident_kib, agent_after.proportional_kib);
}

void print_whole_agent() {
    const std::string config = "/tmp/tarn-bench-" + std::to_string(::getpid()) + ".conf";
    std::deque<peer> servers;
    std::string services = "mysql_lib libmariadb.so.3\npostgre_lib libpq.so.5\n";
    for (const captured_kind& kind : captured_kinds()) {
        const bool has_library = kind.steps[0][0].ends_with(".rows");  // its exchange cannot be scripted
        services += replaced(kind.line, has_library ? 1 : servers.emplace_back(answers_of(kind, 0)).port());
    }
    constexpr long lead_ms = 25;
    sleep_until_before_second(lead_ms);
    const auto start = std::chrono::steady_clock::now();
    const pid_t agent = start_agent(config, services);
    while (servers.front().connections() == 0 && ::waitpid(agent, nullptr, WNOHANG) == 0)
        ::usleep(100);
    const auto waited = std::chrono::steady_clock::now() - start;
    ::sleep(5);
    const usage found = usage_of_family(agent);
    end(agent);
    std::filesystem::remove(config);
    std::printf("\nevery kind of service: %ld KiB resident, %ld KiB proportional\n", found.resident_kib,
                found.proportional_kib);
    std::printf("from start to first sample: %ld ms, of which up to %ld are spent waiting for the second\n",
                static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(waited).count()),
                lead_ms);
}
