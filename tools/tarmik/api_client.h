// Requests to the gateway. One request at a time over one connection; whoever calls waits.
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "error/exception.h"
#include "tarmik/exit_codes.h"

namespace cli {

/// A command can't be carried out. The text is for people.
class CommandError : public error::Exception {
  public:
    CommandError(exit_code_t exit_code, std::string text)
        : Exception(std::move(text)), exit_code_(exit_code) {}
    [[nodiscard]] exit_code_t exit_code() const noexcept { return exit_code_; }

  private:
    exit_code_t exit_code_;
};

/// The server refused a request.
class ServerRefusal : public CommandError {
  public:
    /// `name` is that of the error code; `message` is the text that the server gave.
    ServerRefusal(exit_code_t exit_code, std::string name, std::string message,
                  const std::string& whole_text)
        : CommandError(exit_code, whole_text),
          name_(std::move(name)),
          message_(std::move(message)) {}
    [[nodiscard]] const std::string& name() const noexcept { return name_; }
    [[nodiscard]] const std::string& message() const noexcept { return message_; }

  private:
    std::string name_;
    std::string message_;
};

/// Reads an answer. Throws CommandError for an answer that isn't the gateway's, that says that the
/// server is away, and, as ServerRefusal, for a request that was refused.
[[nodiscard]] nlohmann::ordered_json read_answer(int http_status, const std::string& body);

using Parameters = std::vector<std::pair<std::string, std::string>>;
/// The path with its parameters behind it, encoded.
[[nodiscard]] std::string path_with(const std::string& path, const Parameters& parameters);

/// A text from a person as a part of a path, in which a "/" stays one.
[[nodiscard]] std::string path_part(std::string_view text);

/// What commands ask; tests put something else in its place.
class Api {
  public:
    virtual ~Api() = default;
    /// `path` as "/api/v1/select". Throw CommandError.
    [[nodiscard]] virtual nlohmann::ordered_json post(const std::string& path,
                                                      const nlohmann::json& body) = 0;
    [[nodiscard]] virtual nlohmann::ordered_json get(const std::string& path) = 0;
};

class ApiClient final : public Api {
  public:
    /// `url` as "http://127.0.0.1:8740". Connects at the first request. Throws CommandError with
    /// kUsage for another form.
    explicit ApiClient(const std::string& url);
    ~ApiClient() override;

    [[nodiscard]] nlohmann::ordered_json post(const std::string& path,
                                              const nlohmann::json& body) override;
    [[nodiscard]] nlohmann::ordered_json get(const std::string& path) override;

  private:
    struct Connection;
    std::string url_;
    std::unique_ptr<Connection> connection_;
};

}  // namespace cli
