#pragma once

#include <cstdio>
#include <string>

/// What tarn-check has found so far.
class findings final {
  public:
    /// Messages go to `out`, each preceded by `place`, "FILE:LINE" or "FILE".
    explicit findings(std::FILE& out) : out_(out) {}

    void error(const std::string& place, const std::string& text);
    void warning(const std::string& place, const std::string& text);
    /// Counts an error whose message is printed elsewhere.
    void count_error() { ++errors_; }
    void note(const std::string& place, const std::string& text);

    /// Exit status: 0 without findings, 1 with warnings only, 2 with errors.
    [[nodiscard]] int status() const { return errors_ > 0 ? 2 : (warnings_ > 0 ? 1 : 0); }

    /// Prints the number of errors and warnings.
    void print_total() const;

  private:
    std::FILE& out_;
    int errors_ = 0;
    int warnings_ = 0;
};
