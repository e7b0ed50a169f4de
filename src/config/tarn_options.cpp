// The command line: one table of options, and the diagnostic modes.
#include "config/tarn_options.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "host/tarn_net.h"
#include "host/tarn_os.h"
#include "host/tarn_socket.h"
#include "record/tarn_config.h"
#include "record/tarn_counter.h"
#include "support/tarn_text.h"
#include "support/tarn_version.h"

namespace {

/// The rest of the command line. An option may consume its next word.
struct arguments {
    char** next;
    char** end;
};

void print_help(arguments& /*rest*/) {
    std::printf("TARN %s\n", tarn_version);
    std::printf("  -h       print this message\n");
    std::printf("  -v       print version\n");
    std::printf("  --osver  print OS version\n");
    std::printf("  --debug  enable debug info\n");
    std::printf("  --config set config file (/etc/tarn.conf by default)\n");
    std::printf("  --conf-glob\tpattern for multi-config (/etc/tarn.d/*.conf by default)\n");
    std::printf("  --ifs    print net interfaces stats\n");
    std::printf("  --sock   print sockets stats\n");
    std::exit(EXIT_SUCCESS);
}

void print_version(arguments& /*rest*/) {
    std::printf("%s\n", tarn_version);
    std::exit(EXIT_SUCCESS);
}

/// Binds and initialises the one host counter of a diagnostic mode.
tarn_mycustom_counter& bind_and_init(tarn_core_slot slot, const tarn_operations& operations) {
    tarn_mycustom_counter& counter = stats.core_counters[slot];
    mycustom_set(counter, {}, operations);
    counter.init(counter);
    return counter;
}

/// Prints the operating system right after init: this mode takes no sample.
void print_osversion(arguments& /*rest*/) {
    tarn_mycustom_counter& counter = bind_and_init(core_os, os_operations);
    counter.dump(counter);
    counter.free(counter);
    std::exit(EXIT_SUCCESS);
}

/// Samples the interfaces once; this mode has no dump.
void print_ifsstats(arguments& /*rest*/) {
    tarn_mycustom_counter& counter = bind_and_init(core_net, net_operations);
    counter.update(counter);
    counter.free(counter);
    std::exit(EXIT_SUCCESS);
}

void print_sockstats(arguments& /*rest*/) {
    tarn_mycustom_counter& counter = bind_and_init(core_socket, socket_operations);
    counter.update(counter);
    counter.dump(counter);
    counter.free(counter);
    std::exit(EXIT_SUCCESS);
}

void enable_debug(arguments& /*rest*/) {
    config.debug = 1;
}

void enable_showconfig(arguments& /*rest*/) {
    config.showconfigonly = 1;
}

/// The next word, even one that looks like an option; null, with a message, after the last one.
const char* take_argument(const char* option, arguments& rest) {
    if (rest.next == rest.end) {
        std::printf("Option %s needs an argument\n", option);
        return nullptr;
    }
    return *rest.next++;
}

void set_config_file(arguments& rest) {
    if (const char* const path = take_argument("--config", rest)) {
        tarn::copy_terminated(config.configFile, path);
        std::printf("Config file: %s\n", config.configFile);
    }
}

void set_config_pattern(arguments& rest) {
    if (const char* const pattern = take_argument("--conf-glob", rest)) {
        tarn::copy_terminated(config.extConfigPattern, pattern);
        std::printf("Ext config pattern: %s\n", config.extConfigPattern);
    }
}

struct option {
    std::string_view word;
    void (*apply)(arguments& rest);
};

constexpr option options[] = {{"-h", print_help},
                              {"-v", print_version},
                              {"--osver", print_osversion},
                              {"--debug", enable_debug},
                              {"--conf-glob", set_config_pattern},
                              {"--config", set_config_file},
                              {"--ifs", print_ifsstats},
                              {"--sock", print_sockstats},
                              {"--showconfig", enable_showconfig}};

void apply_option(const char* word, arguments& rest) {
    for (const option& row : options) {
        if (row.word == word) {
            row.apply(rest);
            return;
        }
    }
    std::printf("Unknown option %s\n", word);
}

}  // namespace

int parse_options(int argc, char** argv) {
    if (argc < 2) return 0;
    arguments rest{argv + 1, argv + argc};
    while (rest.next != rest.end) {
        const char* const word = *rest.next++;
        apply_option(word, rest);
    }
    return 0;
}

int print_config() {
    const auto as_int = [](std::uint32_t value) { return static_cast<int>(value); };
    const std::string_view slow_query_sec = tarn::text_of(config.slow_query_sec);
    std::printf("Config:\n");
    std::printf("\tdebug: %d\n", config.debug);
    std::printf("\tname: %s\n", config.name);
    std::printf("\tid: %d\n", as_int(config.id));
    std::printf("\tUUID: %s\n", config.uuid);
    std::printf("\tServer name: %s\n", config.server_name);
    std::printf("\tProject name: %s\n", config.project_name);
    std::printf("\tinterval: %d\n", as_int(config.interval));
    std::printf("\tproto: %d\n", config.proto);
    std::printf("\tport: %d\n", config.port);
    std::printf("\tdefault server ip: %s\n", config.defaultServerIp);
    std::printf("\tserver ip: %s\n", config.serverIp);
    std::printf("\tdefault server name: %s\n", config.serverName);
    std::printf("\tcounter_tcp_to: %d\n", config.counter_tcp_to);
    std::printf("\tserver_tcp_to: %d\n", config.server_tcp_to);
    std::printf("\tmysql_write_to: %d\n", config.mysql_write_to);
    std::printf("\tmysql_read_to: %d\n", config.mysql_read_to);
    std::printf("\tmysql_connect_to: %d\n", config.mysql_connect_to);
    std::printf("\tslow_query_sec: %.*s\n", static_cast<int>(slow_query_sec.size()), slow_query_sec.data());
    std::printf("\tconfig file: %s\n", config.configFile);
    for (const std::string& path : config.extConfigFiles)
        std::printf("\t\t%s\n", path.c_str());
    return 0;
}
