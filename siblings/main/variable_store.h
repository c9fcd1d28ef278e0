// The named values that siblings want kept across restarts, in one small JSON file.
//
// The whole file is rewritten at each change, to a temporary name that then takes the place of the
// old one, so that a crash leaves either the old values or the new ones.
#pragma once

#include <map>
#include <string>

namespace mainprocess {

class VariableStore {
  public:
    using Values = std::map<std::string, std::string>;

    /// Reads the file at `path`; a missing one is an empty store. Throws error::EFatal with the
    /// path and the reason when the file cannot be read or is no JSON object of texts.
    explicit VariableStore(std::string path);

    [[nodiscard]] const Values& values() const noexcept { return values_; }

    /// Sets the values given, keeps all others, and makes the result durable before it returns.
    /// Throws error::ESystemError when the file cannot be written, error::Exception when a value is
    /// not UTF-8; the values are then unchanged.
    void store(const Values& changed);

  private:
    void write(const Values& values) const;

    std::string path_;
    Values values_;
};

}  // namespace mainprocess
