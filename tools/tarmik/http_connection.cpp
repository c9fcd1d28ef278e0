// The only file that includes the HTTP library, which takes long to compile.
#include <fmt/format.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include "tarmik/api_client.h"

namespace cli {

namespace {

constexpr int kConnectTimeout_s = 5;
constexpr int kAnswerTimeout_s = 90;  // longer than the gateway itself waits

}  // namespace

struct ApiClient::Connection {
    explicit Connection(const std::string& url) : client(url) {
        client.set_connection_timeout(kConnectTimeout_s);
        client.set_read_timeout(kAnswerTimeout_s);
        client.set_write_timeout(kAnswerTimeout_s);
        client.set_keep_alive(true);
        client.set_tcp_nodelay(true);
    }
    httplib::Client client;
};

ApiClient::ApiClient(const std::string& url) : url_(url) {
    if (!url.starts_with("http://"))
        throw CommandError(kUsage,
                           fmt::format("\"{}\" is no address like http://127.0.0.1:8740", url));
    connection_ =
        std::make_unique<Connection>(url.ends_with('/') ? url.substr(0, url.size() - 1) : url);
    if (!connection_->client.is_valid())
        throw CommandError(kUsage,
                           fmt::format("\"{}\" is no address like http://127.0.0.1:8740", url));
}

ApiClient::~ApiClient() = default;

namespace {

std::string reason(httplib::Error error) {
    switch (error) {
        case httplib::Error::Connection:
        case httplib::Error::ConnectionTimeout:
            return "cannot connect";
        case httplib::Error::Read:
            return "the connection ended before an answer came";
        case httplib::Error::Write:
            return "the request could not be sent";
        default:
            return httplib::to_string(error);
    }
}

nlohmann::ordered_json take(const httplib::Result& result, const std::string& url) {
    if (!result)
        throw CommandError(kNotReachable, fmt::format("No family is reachable at {}: {}", url,
                                                      reason(result.error())));
    return read_answer(result->status, result->body);
}

}  // namespace

nlohmann::ordered_json ApiClient::post(const std::string& path, const nlohmann::json& body) {
    std::string text;
    try {
        text = body.dump();
    } catch (const nlohmann::json::exception&) {
        throw CommandError(kUsage, "The request holds text that is not UTF-8");
    }
    return take(connection_->client.Post(path, text, "application/json"), url_);
}

nlohmann::ordered_json ApiClient::get(const std::string& path) {
    return take(connection_->client.Get(path), url_);
}

}  // namespace cli
