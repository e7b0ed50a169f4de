// Entry and life of the agent's process: configuration, pid file, signals, the parent's start and end.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <utility>

#include "config/tarn_config_files.h"
#include "config/tarn_options.h"
#include "core/tarn_core.h"
#include "core/tarn_pid_file.h"
#include "customs/tarn_customs_process.h"
#include "docker/tarn_docker_core.h"
#include "docker/tarn_docker_loop.h"
#include "record/tarn_clock.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "record/tarn_trace.h"
#include "services/tarn_mysqlclient.h"
#include "services/tarn_postgreclient.h"
#include "services/tarn_socket_deadline.h"
#include "support/tarn_files.h"
#include "support/tarn_output.h"
#include "support/tarn_text.h"
#include "support/tarn_version.h"

namespace {

pid_t parent_id = 0;

/// A library that waits for its server goes on waiting after a signal.
void on_kill(int /*signum*/) {
    stop = 1;
    tarn::shut_guarded_socket();
}

/// Standard input is /dev/null, and so is an output that the agent was started without: a file opened later
/// must not get the number of a standard stream and be written to.
void open_standard_streams() {
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = ::open("/dev/null", O_RDWR);  // NOLINT(*-cloexec-open)
    ::dup2(fd, STDIN_FILENO);
    ::close(fd);
}

/// A stop signal is caught once; a second one of its kind ends the process at once.
void install_signals() {
    struct sigaction action {};
    action.sa_handler = on_kill;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int signum : {SIGTERM, SIGABRT, SIGINT})
        ::sigaction(signum, &action, nullptr);
}

/// Draws the second of the interval at which this agent reports, so that agents started together spread out.
void draw_second() {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    config.randomsecond = static_cast<int>(static_cast<unsigned>(std::rand()) % config.interval);
}

/// The month counts from 0.
void print_banner() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    std::printf("[%d-%02d-%02d %02d:%02d:%02d %s] tarn v%s started\n", local.tm_year + 1900, local.tm_mon,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, ::tzname[0], tarn_version);
}

void free_config() {
    for (std::size_t at = 0; at < config.extConfigFiles.size(); ++at) {
        std::printf("Freeing [%zu] %s\n", at, config.extConfigFiles[at].c_str());
    }
    config.extConfigFiles.clear();
    config.docker_sock_path.clear();
}

/// The table goes with the parent, so that a clean stop never leaves its block behind, whatever became of the
/// statistics process.
void free_docker() {
    if (config.docker != nullptr && !config.docker->containers.empty()) {
        trace("Freeing docker-related structures\n");
    }
    docker_free(config.docker);
}

/// What an agent that ends must not leave behind, however it ends.
void leave_nothing() {
    if (::getpid() != parent_id) return;  // a process forked later has inherited the call
    stop_customs_process();
    free_docker();
    pid_remove();
}

/// Runs the process that samples and reports, to its end.
void parentThread() {
    parent_id = ::getpid();
    std::atexit(leave_nothing);
    // Nobody asks for the status of a child; where the agent is the first process of a container, what
    // scripts leave behind becomes its child, too.
    std::signal(SIGCHLD, SIG_IGN);
    tarn::load_mysql();
    tarn::load_postgre();
    setCoreCounters();
    initCounters(std::time(nullptr));
    main_loop();
    freeCounters();
    if (stats.ncustom_counters > 0) {
        std::printf("Killing child...\n");
        stop_customs_process();
    }
    tarn::close_mysql();
    tarn::close_postgre();
    free_docker();
    free_config();
    trace("removing pid\n");
    pid_remove();
}

/// Splits off the script process. Returns the exit status.
int run_with_scripts() {
    if (start_customs_process()) {
        parentThread();
        return EXIT_SUCCESS;
    }
    docker_free(config.docker);
    std::printf("ERROR: Can't fork\n");
    trace("removing pid\n");
    pid_remove();
    return EXIT_FAILURE;
}

/// Splits off the process that follows the containers. Returns the exit status.
int run_with_docker() {
    std::array<int, 2> lifeline{-1, -1};
    if (::pipe2(lifeline.data(), O_CLOEXEC | O_NONBLOCK) != 0) std::perror("pipe");
    tarn::unique_fd heard(lifeline[0]);
    tarn::unique_fd spoken(lifeline[1]);
    const pid_t pid = ::fork();
    if (pid < 0) {
        docker_free(config.docker);
        std::printf("Can't fork docker child\n");
        return EXIT_SUCCESS;
    }
    if (pid == 0) {
        spoken.reset();
        dockerThread(std::move(heard));
        return EXIT_SUCCESS;
    }
    heard.reset();
    if (config.docker != nullptr) config.docker->statistics_process = std::move(spoken);
    std::printf("Successfully forked docker child pid = %d\n", pid);
    parentThread();
    return EXIT_SUCCESS;
}

/// Ends a start that failed: nothing that the configuration made is left behind.
int refuse_start(const char* message) {
    std::printf("%s\n", message);
    docker_free(config.docker);
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    open_standard_streams();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // A reader of the messages that goes away must not take the agent with it.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
    if (::getuid() != 0) {
        std::printf("ERROR: you must be root!\n");
        return EXIT_FAILURE;
    }
    init_config();
    parse_options(argc, argv);
    if (parse_config() != 0) return refuse_start("ERROR: bad config!");
    if (config.interval == 0) return refuse_start("ERROR: interval must be at least 1 second!");
    draw_second();
    print_banner();
    if (config.showconfigonly != 0 || config.debug != 0) print_config();
    if (config.showconfigonly != 0) {
        docker_free(config.docker);
        return EXIT_SUCCESS;
    }
    tarn::never_wait_for_readers();
    pid_create();
    install_signals();
    return stats.ncustom_counters > 0 ? run_with_scripts() : run_with_docker();
}
