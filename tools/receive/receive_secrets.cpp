// A file of secrets: "id-or-uuid secret" on each line; "#" begins a line that is a comment.
#include "receive_secrets.h"

#include "report_figures.h"
#include "support/tarn_files.h"
#include "support/tarn_text.h"

std::string receive_secrets::read(const std::string& path) {
    const auto text = tarn::read_file(path.c_str());
    if (!text) return "cannot open " + path;
    std::unordered_map<std::string, std::string> secrets;
    tarn::line_reader lines(*text);
    std::string_view line;
    for (int number = 1; lines.next(line); ++number) {
        const std::string host(tarn::next_word(line));
        if (host.empty() || host.starts_with('#')) continue;
        const std::string secret(tarn::next_word(line));
        const std::string place = path + ", line " + std::to_string(number);
        if (secret.empty() || !tarn::next_word(line).empty())
            return place + ": not an id or UUID and a secret";
        if (!secrets.emplace(host, secret).second) return place + ": a second secret of one host";
    }
    if (secrets.empty()) return "no secret in " + path;
    of_hosts_ = std::move(secrets);
    is_per_host_ = true;
    return {};
}

const std::string* receive_secrets::find(std::span<const std::uint8_t> document) const {
    if (!is_per_host_) return &shared_;
    const auto found = of_hosts_.find(host_of(document));
    return found != of_hosts_.end() ? &found->second : nullptr;
}
