// A client of plain sockets for tests that turn the loop of the server by hand.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <cstdint>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

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

}  // namespace http_test
