// Entry of the agent: configuration, pid file, signals, the fork, and the parent's start and end.
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
#include "support/tarn_version.h"

namespace {

pid_t parent_id = 0;

/// A client library resumes its wait after a signal, so its socket is shut down.
void on_kill(int /*signum*/) {
    stop = 1;
    tarn::shut_guarded_socket();
}

/// Opens standard input and each missing output on /dev/null: otherwise a file opened later could get the
/// descriptor of a standard stream and be written to.
void open_standard_streams() {
    int fd = STDIN_FILENO;
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = ::open("/dev/null", O_RDWR);  // NOLINT(*-cloexec-open)
    ::dup2(fd, STDIN_FILENO);
    ::close(fd);
}

/// Each stop signal is caught once; a second one of the same kind kills the process.
void install_signals() {
    struct sigaction action {};
    action.sa_handler = on_kill;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);
    for (const int signum : {SIGTERM, SIGABRT, SIGINT})
        ::sigaction(signum, &action, nullptr);
}

/// Chooses the second of the interval at which this agent reports, so that agents started together differ.
void choose_random_second() {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    config.randomsecond = static_cast<int>(static_cast<unsigned>(std::rand()) % config.interval);
}

/// The month is printed as counted from 0.
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

/// Frees the container table. The parent does so even if the statistics process has failed, so that a clean
/// stop leaves no shared memory behind.
void free_docker() {
    if (config.docker != nullptr && !config.docker->containers.empty()) {
        trace("Freeing docker-related structures\n");
    }
    docker_free(config.docker);
}

/// Runs on every exit of the parent.
void clean_up() {
    if (::getpid() != parent_id) return;  // a child inherits the exit handler
    stop_customs_process();
    free_docker();
    pid_remove();
}

/// Runs the process that samples and reports until it is stopped.
void parentThread() {
    parent_id = ::getpid();
    std::atexit(clean_up);
    // Lets the kernel reap children, whose status is not needed. As the first process of a container the
    // agent also adopts the processes that scripts leave behind.
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

/// Forks the script process and runs the parent. Returns the exit status.
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

/// Forks the process that follows the containers and runs the parent. Returns the exit status.
int run_with_docker() {
    std::array<int, 2> lifeline{-1, -1};
    if (::pipe2(lifeline.data(), O_CLOEXEC | O_NONBLOCK) != 0) std::perror("pipe");
    tarn::unique_fd read_end(lifeline[0]);
    tarn::unique_fd write_end(lifeline[1]);
    const pid_t pid = ::fork();
    if (pid < 0) {
        docker_free(config.docker);
        std::printf("Can't fork docker child\n");
        return EXIT_SUCCESS;
    }
    if (pid == 0) {
        write_end.reset();
        dockerThread(std::move(read_end));
        return EXIT_SUCCESS;
    }
    read_end.reset();
    if (config.docker != nullptr) config.docker->statistics_process = std::move(write_end);
    std::printf("Successfully forked docker child pid = %d\n", pid);
    parentThread();
    return EXIT_SUCCESS;
}

/// Ends a failed start and frees what the configuration has created.
int refuse_start(const char* message) {
    std::printf("%s\n", message);
    docker_free(config.docker);
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    open_standard_streams();
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    // Messages that cannot be written, to a reader that has gone away or to a file at its limit, must not end
    // the agent.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
    if (::getuid() != 0) {
        std::printf("ERROR: you must be root!\n");
        return EXIT_FAILURE;
    }
    init_config();
    parse_options(argc, argv);
    if (parse_config() != 0) return refuse_start("ERROR: bad config!");
    if (config.interval == 0) return refuse_start("ERROR: interval must be at least 1 second!");
    choose_random_second();
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
