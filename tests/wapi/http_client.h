// The real HTTP server on an ephemeral loopback port, whose loop a test turns by hand, and clients
// of plain sockets.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "support/fake_clock.h"
#include "wapi/gateway.h"
#include "wapi/http_server.h"

namespace http_test {

/// A client's end of one connection; never blocks.
class Client {
  public:
    explicit Client(uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        (void)::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    ~Client() { ::close(fd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void post(const std::string& path, const std::string& body) {
        pending_ += "POST " + path + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " +
                    std::to_string(body.size()) + "\r\n\r\n" + body;
    }
    void get(const std::string& path, const std::string& more_headers = "Host: localhost\r\n") {
        pending_ += "GET " + path + " HTTP/1.1\r\n" + more_headers + "\r\n";
    }
    void raw(const std::string& text) { pending_ += text; }

    /// From now on nothing is read.
    void pause(bool on) { paused_ = on; }

    /// Moves what can be moved.
    void step() {
        if (!all_sent()) {
            const ssize_t sent =
                ::send(fd_, pending_.data() + sent_, pending_.size() - sent_, MSG_NOSIGNAL);
            if (sent > 0) sent_ += static_cast<size_t>(sent);
        }
        if (paused_) return;
        char buffer[65536];
        const ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
        if (got > 0) received_.append(buffer, static_cast<size_t>(got));
        if (got == 0) closed_ = true;
    }

    /// The status of a whole answer; 0 if there is none yet. Its body is in body().
    int status() {
        const size_t head = received_.find("\r\n\r\n");
        if (head == received_.npos) return 0;
        std::string lower = received_.substr(0, head);
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        const size_t length = lower.find("content-length: ");
        const size_t size = length == lower.npos ? 0 : std::stoul(lower.substr(length + 16));
        if (received_.size() < head + 4 + size) return 0;
        body_ = received_.substr(head + 4, size);
        return std::stoi(received_.substr(9, 3));
    }
    /// Takes the answer off, for the next one on this connection.
    void next() { received_.clear(); }
    [[nodiscard]] nlohmann::json body() const {
        return nlohmann::json::parse(body_, nullptr, false);
    }
    /// All bytes so far.
    [[nodiscard]] const std::string& received() const { return received_; }
    [[nodiscard]] bool closed() const { return closed_; }
    [[nodiscard]] bool all_sent() const { return sent_ == pending_.size(); }

  private:
    int fd_;
    std::string pending_;
    size_t sent_ = 0;  ///< of pending_
    std::string received_;
    std::string body_;
    bool closed_ = false;
    bool paused_ = false;
};

/// A server whose requests a test takes, with the other side of the messenger played by it.
class Bench : public testing::Test, protected wapi::GatewayPorts, protected wapi::HttpRequests {
  protected:
    /// Turns the loop until `done`, at most ten seconds.
    bool run_until(const std::vector<Client*>& clients, const std::function<bool()>& done) {
        const platform::SystemClock real;
        const uint64_t limit_us = real.monotonic_us() + 10'000'000;
        while (!done()) {
            if (real.monotonic_us() > limit_us) return false;
            for (Client* each : clients) each->step();
            pollfd ready{http.epoll_fd(), POLLIN, 0};
            (void)::poll(&ready, 1, http.timeout_ms() == 0U ? 0 : 1);
            check_deadlines();
            http.run();
        }
        return true;
    }

    bool server_up = true;
    /// What the server was asked, by the numbers from 101 on.
    std::vector<std::unique_ptr<queues::event>> sent;
    support::FakeClock clock;
    wapi::HttpServer http{0, *this};

  private:
    virtual void check_deadlines() = 0;

    uint32_t new_uid() override { return ++uid_; }
    bool send(const queues::event& request) override {
        if (server_up) sent.push_back(request.clone());
        return server_up;
    }
    void answer(wapi::token_t token, wapi::Response response) override {
        http.answer(token, std::move(response));
    }
    bool open_stream(wapi::token_t token, const std::string& content_type) override {
        return http.open_stream(token, content_type);
    }
    void write(wapi::token_t token, std::string_view text) override { http.write(token, text); }
    void end_stream(wapi::token_t token) override { http.end_stream(token); }

    uint32_t uid_ = 100;
};

}  // namespace http_test
