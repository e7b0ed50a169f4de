#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

/// The secrets that reports must be signed with: none, one for all hosts, or one for each.
class receive_secrets final {
  public:
    receive_secrets() = default;

    /// One secret for all hosts; an empty one means that signatures are not checked.
    receive_secrets(std::string secret)  // NOLINT(google-explicit-constructor)
        : shared_(std::move(secret)) {}

    /// Reads a file with an id or UUID and a secret on each line. On failure the secrets stay as they were,
    /// and the fault is returned; empty on success.
    std::string read(const std::string& path);

    /// False when signatures are not checked.
    [[nodiscard]] bool are_checked() const { return is_per_host_ || !shared_.empty(); }

    /// The secret of the host that a document claims to come from; null when that host is not known. The
    /// document need not be valid.
    [[nodiscard]] const std::string* find(std::span<const std::uint8_t> document) const;

  private:
    std::string shared_;
    std::unordered_map<std::string, std::string> of_hosts_;
    bool is_per_host_ = false;
};
