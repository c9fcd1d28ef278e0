// The only file that includes the HTTP library, which takes long to compile.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fmt/format.h>
#include <httplib.h>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

#include "platform/fifo.h"
#include "tarmik/api_client.h"
#include "tarmik/live_client.h"

namespace cli {

namespace {

constexpr int kConnectTimeout_s = 5;
constexpr int kAnswerTimeout_s = 90;  // longer than the gateway itself waits
/// The gateway breaks every silence of 15 s. The first result may take as long as any answer.
constexpr int kSilenceLimit_s = kAnswerTimeout_s;
/// More of a refusal isn't read.
constexpr size_t kMaxRefusalBytes = 1U << 20;
/// While so many events wait to be taken, no more are read.
constexpr size_t kMaxWaiting = 1000;

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

namespace {

[[noreturn]] void refuse_address(const std::string& url) {
    throw CommandError(kUsage, fmt::format("\"{}\" is no address like http://127.0.0.1:8740", url));
}

std::string checked_address(const std::string& url) {
    if (!url.starts_with("http://")) refuse_address(url);
    return url.ends_with('/') ? url.substr(0, url.size() - 1) : url;
}

}  // namespace

std::string path_with(const std::string& path, const Parameters& parameters) {
    if (parameters.empty()) return path;
    httplib::Params encoded;
    for (const auto& [name, value] : parameters) encoded.emplace(name, value);
    return httplib::append_query_params(path, encoded);
}

ApiClient::ApiClient(const std::string& url)
    : url_(url), connection_(std::make_unique<Connection>(checked_address(url))) {
    if (!connection_->client.is_valid()) refuse_address(url);
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

/// The thread's side and the loop's side of a live request.
struct LiveClient::Worker {
    explicit Worker(const std::string& url)
        : client(checked_address(url)), ready(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        if (!client.is_valid()) refuse_address(url);
        client.set_connection_timeout(kConnectTimeout_s);
        client.set_read_timeout(kSilenceLimit_s);
        client.set_tcp_nodelay(true);
    }

    void put(StreamItem item) {
        std::unique_lock lock(mutex);
        taken.wait(lock, [&] { return stopping || items.size() < kMaxWaiting; });
        items.push_back(std::move(item));
        const uint64_t one = 1;
        (void)!::write(ready.get(), &one, sizeof one);
    }

    void work(const std::string& target) {
        StreamEnd end;
        EventReader reader;
        try {
            const auto on_head = [&](const httplib::Response& head) {
                end.http_status = head.status;
                return true;
            };
            const auto on_bytes = [&](const char* bytes, size_t size) {
                if (end.http_status != 200)
                    end.body.append(bytes, size);
                else
                    reader.feed({bytes, size}, [&](StreamEvent event) { put(std::move(event)); });
                return !stopping && end.body.size() < kMaxRefusalBytes;
            };
            const httplib::Result result = client.Get(target, on_head, on_bytes);
            if (!result) end.reason = reason(result.error());
        } catch (const error::Exception& wrong) {
            end.reason = wrong.text();
        }
        put(std::move(end));
        done = true;
    }

    httplib::Client client;
    platform::Fd ready;
    std::mutex mutex;
    std::condition_variable taken;
    std::deque<StreamItem> items;
    std::atomic<bool> stopping = false;
    std::atomic<bool> done = false;
    std::thread thread;
};

LiveClient::LiveClient(const std::string& url, const std::string& path,
                       const Parameters& parameters)
    : worker_(std::make_unique<Worker>(url)) {
    worker_->thread = std::thread(
        [worker = worker_.get(), target = path_with(path, parameters)] { worker->work(target); });
}

LiveClient::~LiveClient() {
    worker_->stopping = true;
    // The thread may be on its way into the next wait, where only another stop() reaches it.
    while (!worker_->done) {
        worker_->client.stop();
        worker_->taken.notify_all();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    worker_->thread.join();
}

int LiveClient::fd() const {
    return worker_->ready.get();
}

std::deque<StreamItem> LiveClient::take() {
    uint64_t count = 0;
    (void)!::read(worker_->ready.get(), &count, sizeof count);
    std::deque<StreamItem> taken;
    {
        const std::lock_guard lock(worker_->mutex);
        taken.swap(worker_->items);
    }
    worker_->taken.notify_all();
    return taken;
}

}  // namespace cli
