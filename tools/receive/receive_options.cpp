// The command line of tarn-receive, which CLI11 parses.
#include "receive_options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "support/tarn_files.h"
#include "support/tarn_text.h"
#include "support/tarn_version.h"

namespace {

/// Needed because CLI11 reads 010 as octal and -1 as a huge count.
std::string decimal_fault(const std::string& word) {
    const bool is_decimal =
        tarn::is_valid_int(word) && !word.starts_with('-') && (word == "0" || !word.starts_with('0'));
    return is_decimal ? "" : "\"" + word + "\" is not a decimal number";
}

/// An empty secret would accept every packet.
std::string empty_fault(const std::string& word) {
    return word.empty() ? "an empty secret" : "";
}

std::string empty_url_fault(const std::string& word) {
    return word.empty() ? "an empty URL" : "";
}

/// Reads the first line of the file.
std::string read_secret(const std::string& path) {
    const auto text = tarn::read_file(path.c_str());
    const std::string_view secret = text ? text->substr(0, text->find('\n')) : std::string_view();
    if (secret.empty()) throw CLI::ParseError("no secret in " + path, EXIT_FAILURE);
    return std::string(secret);
}

output format_of(const std::string& word) {
    constexpr std::pair<std::string_view, output> formats[] = {
        {"json", output::json}, {"raw", output::raw}, {"jsonl", output::jsonl}, {"influx", output::influx}};
    for (const auto& [name, format] : formats) {
        if (name == word) return format;
    }
    return output::pretty;
}

void declare_exports(CLI::App& app, receive_options& options) {
    auto* const forward = app.add_option("--forward", options.forward.url,
                                         "Post the figures of reports to this URL in InfluxDB line protocol")
                              ->type_name("URL")
                              ->check(empty_url_fault);
    app.add_option("--forward-headers", options.forward.headers,
                   "Send the HTTP headers in this file along, one a line")
        ->type_name("FILE")
        ->needs(forward);
    app.add_option("--queue", options.forward.queue, "Compressed lines to keep while the engine is down")
        ->type_name("MIB")
        ->check(decimal_fault)
        ->check(CLI::Range(1, 65536))
        ->capture_default_str()
        ->needs(forward);
    app.add_option("--metrics", options.metrics, "Serve http://ADDRESS:PORT/metrics to Prometheus")
        ->type_name("ADDRESS:PORT");
}

void declare_options(CLI::App& app, receive_options& options) {
    app.option_defaults()->take_last();
    app.set_version_flag("--version", std::string("tarn-receive ") + tarn_version);
    app.add_option("--address", options.address, "IPv4 address to listen on")->capture_default_str();
    app.add_option("--port", options.port, "UDP and TCP port; 0 takes a free one")
        ->check(decimal_fault)
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    auto* const secret = app.add_option("--secret", options.secret, "Take only packets signed with this text")
                             ->check(empty_fault);
    app.add_option_function<std::string>(
           "--secret-file", [&options](const std::string& path) { options.secret = read_secret(path); },
           "Take only packets signed with the first line of this file")
        ->type_name("FILE")
        ->excludes(secret);
    app.add_option(
           "--secrets", options.secrets,
           "Take only packets signed with the secret of their host: an id or UUID and a secret a line")
        ->type_name("FILE")
        ->excludes(secret)
        ->excludes("--secret-file");
    app.add_option("--count", options.count, "End after so many good reports; 0 for no end")
        ->check(decimal_fault)
        ->capture_default_str();
    app.add_option_function<std::string>(
           "--format", [&options](const std::string& word) { options.format = format_of(word); },
           "How reports are printed; with --forward or --metrics they are printed only when this is given")
        ->check(CLI::IsMember({"pretty", "json", "raw", "jsonl", "influx"}))
        ->default_str("pretty");
}

}  // namespace

receive_options parse_options(int argc, char** argv) {
    receive_options options;
    CLI::App app("Takes reports over UDP and TCP, checks them, prints them and hands them on.",
                 "tarn-receive");
    declare_options(app, options);
    declare_exports(app, options);
    app.failure_message([](const CLI::App* /*app*/, const CLI::Error& error) {
        return std::string("tarn-receive: ") + error.what() + "\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error) == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    if (options.is_exporting() && app.count("--format") == 0) options.format = output::none;
    return options;
}
