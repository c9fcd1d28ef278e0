#include "wapi/http_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>
#include <unistd.h>

#include "error/exception.h"
#include "log/log.h"

namespace wapi {

namespace {

const logging::Logger logger{"wapi"};

std::string_view header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value == nullptr ? std::string_view() : value;
}

uint64_t announced_bytes(MHD_Connection* connection) {
    const std::string_view text = header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    uint64_t bytes = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), bytes);
    if (failure == std::errc::result_out_of_range) return UINT64_MAX;
    return bytes;
}

Response refuse_size() {
    return refusal(
        Refused(413, "TOO_LARGE",
                fmt::format("The body has more than {} bytes", HttpServer::kMaxBodyBytes)));
}

Response refuse_closing() {
    return refusal(Refused(503, "UNAVAILABLE", "The gateway is stopping"));
}

/// Hands the answer to the library, which keeps the text until it is sent.
MHD_Result queue_response(MHD_Connection* connection, Response response) {
    auto body = std::make_unique<std::string>(std::move(response.body));
    char* bytes = body->data();
    const size_t size = body->size();
    MHD_Response* made = MHD_create_response_from_buffer_with_free_callback_cls(
        size, bytes, [](void* kept) { delete static_cast<std::string*>(kept); }, body.get());
    if (made == nullptr) return MHD_NO;
    (void)body.release();  // the response owns it now
    MHD_add_response_header(made, MHD_HTTP_HEADER_CONTENT_TYPE, response.content_type.c_str());
    const MHD_Result queued = MHD_queue_response(connection, response.status, made);
    MHD_destroy_response(made);
    return queued;
}

void log_line(void*, const char* format, va_list arguments) {
    char line[512];
    if (std::vsnprintf(line, sizeof line, format, arguments) <= 0) return;
    logger.info("HTTP: {}", std::string_view(line, std::strcspn(line, "\n")));
}

bool is_name_of_this_machine(std::string_view host) {
    const size_t port = host.rfind(':');
    if (port != host.npos && host.find(']', port) == host.npos) host = host.substr(0, port);
    return host == "127.0.0.1" || host == "localhost" || host == "[::1]";
}

}  // namespace

bool comes_from_here(std::string_view host, std::string_view origin) {
    if (!host.empty() && !is_name_of_this_machine(host)) return false;
    constexpr std::string_view kScheme = "http://";
    return origin.empty() || (origin.starts_with(kScheme) && origin.substr(kScheme.size()) == host);
}

struct HttpServer::Exchange {
    enum class state_t { reading, waiting, answered };

    token_t token;
    MHD_Connection* connection;
    Request request;
    state_t state = state_t::reading;
    uint64_t drained_bytes = 0;          ///< read and thrown away
    std::optional<Response> response{};  ///< while reading: a refusal that waits for the body's end
};

/// What the library calls. Nothing here throws but for lack of memory, and nothing calls out.
struct HttpServer::Callbacks {
    static MHD_Result on_access(void* server, MHD_Connection* connection, const char* path,
                                const char* method, const char*, const char* data, size_t* size,
                                void** kept) {
        HttpServer& self = *static_cast<HttpServer*>(server);
        if (*kept == nullptr) {
            Exchange& exchange = self.begin(connection, method, path);
            *kept = &exchange;
            return on_headers(exchange);
        }
        Exchange& exchange = *static_cast<Exchange*>(*kept);
        if (*size != 0) return on_body(self, exchange, data, *size);
        if (exchange.state == Exchange::state_t::reading) {
            if (!exchange.response && self.closing_) exchange.response = refuse_closing();
            if (exchange.response) return send(exchange);
            exchange.state = Exchange::state_t::waiting;
            self.arrived_.push_back(exchange.token);
            MHD_suspend_connection(connection);
            return MHD_YES;
        }
        return send(exchange);
    }

    static MHD_Result on_parameter(void* query, MHD_ValueKind, const char* name,
                                   const char* value) {
        static_cast<decltype(Request::query)*>(query)->emplace_back(name,
                                                                    value == nullptr ? "" : value);
        return MHD_YES;
    }

    static MHD_Result on_headers(Exchange& exchange) {
        MHD_Connection* connection = exchange.connection;
        if (!comes_from_here(header(connection, MHD_HTTP_HEADER_HOST),
                             header(connection, MHD_HTTP_HEADER_ORIGIN)))
            exchange.response = refusal(Refused(
                403, "FOREIGN_ORIGIN", "Requests of web pages of other sites are not answered"));
        const uint64_t announced = announced_bytes(connection);
        if (announced <= kMaxBodyBytes) return MHD_YES;
        exchange.response = refuse_size();
        // A client that asks before it sends, or that would send for long, is told at once. The
        // others hear of it at the end, since a connection closed in the middle of their sending
        // may cost them the answer.
        const bool asks = !header(connection, MHD_HTTP_HEADER_EXPECT).empty();
        return asks || announced > kMaxDrainBytes ? send(exchange) : MHD_YES;
    }

    static MHD_Result on_body(HttpServer& self, Exchange& exchange, const char* data,
                              size_t& size) {
        if (!exchange.response && exchange.request.body.size() + size > kMaxBodyBytes)
            exchange.response = refuse_size();
        if (!exchange.response && self.buffered_bytes_ + size > kMaxBufferedBytes)
            exchange.response =
                refusal(Refused(503, "BUSY", "Too many large requests at the same time"));
        if (!exchange.response) {
            exchange.request.body.append(data, size);
            self.buffered_bytes_ += size;
        } else {
            self.buffered_bytes_ -= exchange.request.body.size();
            std::string().swap(exchange.request.body);
            exchange.drained_bytes += size;
            if (exchange.drained_bytes > kMaxDrainBytes) return MHD_NO;
        }
        size = 0;
        return MHD_YES;
    }

    static MHD_Result send(Exchange& exchange) {
        exchange.state = Exchange::state_t::answered;
        Response response = std::move(*exchange.response);
        exchange.response.reset();
        return queue_response(exchange.connection, std::move(response));
    }

    static void on_completed(void* server, MHD_Connection*, void** kept,
                             MHD_RequestTerminationCode) {
        if (*kept == nullptr) return;
        static_cast<HttpServer*>(server)->end(*static_cast<Exchange*>(*kept));
        *kept = nullptr;
    }
};

HttpServer::HttpServer(uint16_t port, HttpRequests& requests) : requests_(requests) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    errno = 0;
    daemon_ = MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG, port,
                               nullptr, nullptr, &Callbacks::on_access, this,
                               MHD_OPTION_EXTERNAL_LOGGER, &log_line, nullptr, MHD_OPTION_SOCK_ADDR,
                               reinterpret_cast<sockaddr*>(&address), MHD_OPTION_NOTIFY_COMPLETED,
                               &Callbacks::on_completed, this, MHD_OPTION_CONNECTION_LIMIT,
                               kMaxConnections, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMaxHeaderBytes,
                               MHD_OPTION_CONNECTION_TIMEOUT, kIdleTimeout_s, MHD_OPTION_END);
    if (daemon_ == nullptr)
        throw error::EFatal(fmt::format("Cannot listen on 127.0.0.1:{}: {}", port,
                                        errno == 0 ? "unknown reason" : std::strerror(errno)));
}

HttpServer::~HttpServer() {
    closing_ = true;
    std::vector<token_t> waiting;
    for (const auto& [token, exchange] : exchanges_)
        if (exchange->state == Exchange::state_t::waiting) waiting.push_back(token);
    for (const token_t token : waiting) answer(token, refuse_closing());
    // Takes the connections out of suspension and lets the answers go as far as they go at once.
    MHD_run(daemon_);
    MHD_run(daemon_);
    MHD_stop_daemon(daemon_);
}

uint16_t HttpServer::port() const {
    return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
}

int HttpServer::epoll_fd() const {
    return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

std::optional<uint64_t> HttpServer::timeout_ms() const {
    MHD_UNSIGNED_LONG_LONG left_ms = 0;
    if (MHD_get_timeout(daemon_, &left_ms) != MHD_YES) return std::nullopt;
    return left_ms;
}

void HttpServer::run() {
    do {
        resumed_ = false;
        MHD_run(daemon_);
        deliver();
    } while (resumed_);
}

void HttpServer::deliver() {
    const std::vector<token_t> arrived = std::move(arrived_);
    arrived_.clear();
    for (const token_t token : arrived) {
        const auto found = exchanges_.find(token);
        if (found == exchanges_.end()) continue;
        const Exchange& exchange = *found->second;
        requests_.take_request(token, exchange.request);
    }
}

void HttpServer::answer(token_t token, Response response) {
    const auto found = exchanges_.find(token);
    if (found == exchanges_.end()) return;
    Exchange& exchange = *found->second;
    if (exchange.state != Exchange::state_t::waiting) return;
    exchange.response = std::move(response);
    exchange.state = Exchange::state_t::answered;
    resumed_ = true;
    MHD_resume_connection(exchange.connection);
}

void HttpServer::stop_listening() {
    if (!listening_) return;
    listening_ = false;
    const MHD_socket listener = MHD_quiesce_daemon(daemon_);
    if (listener != MHD_INVALID_SOCKET) ::close(listener);
}

HttpServer::Exchange& HttpServer::begin(MHD_Connection* connection, const char* method,
                                        const char* path) {
    const token_t token = ++last_token_;
    auto made = std::make_unique<Exchange>(
        Exchange{.token = token, .connection = connection, .request = {method, path}});
    (void)MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, &Callbacks::on_parameter,
                                    &made->request.query);
    return *exchanges_.emplace(token, std::move(made)).first->second;
}

void HttpServer::end(Exchange& exchange) {
    buffered_bytes_ -= exchange.request.body.size();
    exchanges_.erase(exchange.token);
}

}  // namespace wapi
