// tarn-check: reads the agent's configuration, says what is wrong with it, and tries its services.
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "check_config.h"
#include "check_services.h"
#include "record/tarn_config.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"
#include "support/tarn_version.h"

namespace {

struct check_options {
    std::string file;
    std::string pattern;
    bool probe = false;
    std::string probe_only;
};

/// Exit status of a command line that is wrong.
constexpr int bad_usage = 2;

/// Parses the command line; exits when it is wrong or asks for help.
check_options parsed_options(int argc, char** argv) {
    check_options options;
    options.file = config.configFile;
    options.pattern = config.extConfigPattern;
    CLI::App app("Checks the configuration of the tarn agent. Changes nothing and sends no report.",
                 "tarn-check");
    app.set_version_flag("--version", std::string("tarn-check ") + tarn_version);
    app.add_option("FILE", options.file, "Configuration file")->capture_default_str();
    app.add_option("--conf-glob", options.pattern, "Pattern of the files that are read after it")
        ->capture_default_str();
    auto* const probe =
        app.add_option("--probe", options.probe_only, "Sample each service once, or only the one of this ID")
            ->type_name("[ID]")
            ->expected(0, 1);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error) == 0 ? EXIT_SUCCESS : bad_usage);
    }
    options.probe = probe->count() > 0;
    return options;
}

/// Sends what the agent's functions print to /dev/null, and returns the stream for the tool's own output.
tarn::unique_file take_output() {
    tarn::unique_file own(::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "w"));
    const tarn::unique_fd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    ::dup2(null.get(), STDOUT_FILENO);
    ::dup2(null.get(), STDERR_FILENO);
    return own;
}

/// Returns the exit status.
int run(int argc, char** argv) {
    init_config();
    const check_options options = parsed_options(argc, argv);
    tarn::copy_terminated(config.configFile, options.file);
    tarn::copy_terminated(config.extConfigPattern, options.pattern);

    const tarn::unique_file output = take_output();
    if (!output) return bad_usage;
    std::setvbuf(output.get(), nullptr, _IOLBF, 0);
    findings found(*output);
    const auto counters = check_config(found);
    if (options.probe) probe_services(counters, options.probe_only, *output, found);
    found.print_total();
    return found.status();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarn-check: %s\n", error.what());
        return bad_usage;
    }
}
