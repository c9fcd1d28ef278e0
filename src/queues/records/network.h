// Records of the siblings that speak to other machines: agent and grid links, routing, remote
// procedure calls and endpoint secrets. The server has no handler for them; all siblings share one
// catalogue.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tql/id.h"

namespace socketio {

struct ReqSharedKeyGen_Data {
    std::uint32_t link_id = 0;
    std::vector<std::uint8_t> peer_public{};

    static constexpr std::string_view record = "ReqSharedKeyGen_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("peer_public", self.peer_public);
    }
};

struct SharedKeyReply_Data {
    std::uint32_t link_id = 0;
    std::vector<std::uint8_t> own_public{};
    std::vector<std::uint8_t> shared_secret{};

    static constexpr std::string_view record = "SharedKeyReply_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("own_public", self.own_public);
        visit("shared_secret", self.shared_secret);
    }
};

struct ReqFinalKeyGen_Data {
    std::uint32_t link_id = 0;
    std::vector<std::uint8_t> shared_secret{};
    std::vector<std::uint8_t> salt{};

    static constexpr std::string_view record = "ReqFinalKeyGen_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("shared_secret", self.shared_secret);
        visit("salt", self.salt);
    }
};

struct FinalKeyReply_Data {
    std::uint32_t link_id = 0;
    std::vector<std::uint8_t> key{};

    static constexpr std::string_view record = "FinalKeyReply_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("key", self.key);
    }
};

struct GridLinkInitiate_Data {
    std::uint32_t link_id = 0;
    std::string address{};
    std::uint32_t port = 0;

    static constexpr std::string_view record = "GridLinkInitiate_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("address", self.address);
        visit("port", self.port);
    }
};

struct GridLinkStatusChange_Data {
    std::uint32_t link_id = 0;
    std::uint32_t status = 0;
    std::string message{};

    static constexpr std::string_view record = "GridLinkStatusChange_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("status", self.status);
        visit("message", self.message);
    }
};

struct GridLinkShutdown_Data {
    std::uint32_t link_id = 0;

    static constexpr std::string_view record = "GridLinkShutdown_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("link_id", self.link_id); }
};

struct GridLinkKeepAlive_Data {
    std::uint32_t link_id = 0;

    static constexpr std::string_view record = "GridLinkKeepAlive_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("link_id", self.link_id); }
};

struct GridLinkActivity_Data {
    std::uint32_t link_id = 0;
    std::int64_t time = 0;

    static constexpr std::string_view record = "GridLinkActivity_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("time", self.time);
    }
};

struct GridSystemShutdown_Data {
    std::string system{};

    static constexpr std::string_view record = "GridSystemShutdown_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("system", self.system); }
};

struct Return_GridSystemShutdown_Data {
    std::uint32_t status = 0;

    static constexpr std::string_view record = "Return_GridSystemShutdown_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("status", self.status); }
};

struct RoutingTableAdd_NHL_Data {
    std::string destination{};
    std::uint32_t link_id = 0;
    std::uint32_t cost = 0;

    static constexpr std::string_view record = "RoutingTableAdd_NHL_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("destination", self.destination);
        visit("link_id", self.link_id);
        visit("cost", self.cost);
    }
};

struct RoutingTableRemove_NHL_Data {
    std::string destination{};
    std::uint32_t link_id = 0;

    static constexpr std::string_view record = "RoutingTableRemove_NHL_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("destination", self.destination);
        visit("link_id", self.link_id);
    }
};

struct RoutingTableAdd_CM_Data {
    std::string member{};
    std::string address{};
    std::uint32_t port = 0;

    static constexpr std::string_view record = "RoutingTableAdd_CM_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("member", self.member);
        visit("address", self.address);
        visit("port", self.port);
    }
};

struct RoutingTableRemove_CM_Data {
    std::string member{};

    static constexpr std::string_view record = "RoutingTableRemove_CM_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("member", self.member); }
};

struct RPC_ClientCallRequest_Data {
    std::uint32_t call_id = 0;
    std::string destination{};
    std::string procedure{};
    std::vector<std::uint8_t> arguments{};

    static constexpr std::string_view record = "RPC_ClientCallRequest_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("call_id", self.call_id);
        visit("destination", self.destination);
        visit("procedure", self.procedure);
        visit("arguments", self.arguments);
    }
};

struct RPC_ClientCallReply_Data {
    std::uint32_t call_id = 0;
    std::vector<std::uint8_t> result{};

    static constexpr std::string_view record = "RPC_ClientCallReply_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("call_id", self.call_id);
        visit("result", self.result);
    }
};

struct RPC_ClientCallError_Data {
    std::uint32_t call_id = 0;
    std::uint32_t status = 0;
    std::string message{};

    static constexpr std::string_view record = "RPC_ClientCallError_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("call_id", self.call_id);
        visit("status", self.status);
        visit("message", self.message);
    }
};

struct RPC_HandlerRegister_Data {
    std::string procedure{};

    static constexpr std::string_view record = "RPC_HandlerRegister_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("procedure", self.procedure); }
};

struct RPC_HandlerUnregister_Data {
    std::string procedure{};

    static constexpr std::string_view record = "RPC_HandlerUnregister_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("procedure", self.procedure); }
};

struct RPC_ProcedureCall_Data {
    std::uint32_t call_id = 0;
    std::string source{};
    std::string procedure{};
    std::vector<std::uint8_t> arguments{};

    static constexpr std::string_view record = "RPC_ProcedureCall_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("call_id", self.call_id);
        visit("source", self.source);
        visit("procedure", self.procedure);
        visit("arguments", self.arguments);
    }
};

struct RPC_ProcedureCallReply_Data {
    std::uint32_t call_id = 0;
    std::vector<std::uint8_t> result{};

    static constexpr std::string_view record = "RPC_ProcedureCallReply_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("call_id", self.call_id);
        visit("result", self.result);
    }
};

struct RPC_ProcedureCallFailed_Data {
    std::uint32_t call_id = 0;
    std::uint32_t status = 0;
    std::string message{};

    static constexpr std::string_view record = "RPC_ProcedureCallFailed_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("call_id", self.call_id);
        visit("status", self.status);
        visit("message", self.message);
    }
};

struct RPC_MessageForward_Data {
    std::string destination{};
    std::vector<std::uint8_t> message{};

    static constexpr std::string_view record = "RPC_MessageForward_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("destination", self.destination);
        visit("message", self.message);
    }
};

}  // namespace socketio

namespace skiogrid {

struct GridCleartextSend_Data {
    std::uint32_t link_id = 0;
    std::vector<std::uint8_t> message{};

    static constexpr std::string_view record = "GridCleartextSend_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("message", self.message);
    }
};

struct GridNSIncoming_Data {
    std::uint32_t link_id = 0;
    std::string source{};
    std::vector<std::uint8_t> message{};

    static constexpr std::string_view record = "GridNSIncoming_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("link_id", self.link_id);
        visit("source", self.source);
        visit("message", self.message);
    }
};

/// `lifetime` in seconds.
struct GridSetEndpointSecret_Data {
    std::string endpoint{};
    std::vector<std::uint8_t> secret{};
    std::int64_t lifetime = 0;

    static constexpr std::string_view record = "GridSetEndpointSecret_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("endpoint", self.endpoint);
        visit("secret", self.secret);
        visit("lifetime", self.lifetime);
    }
};

struct GridClearEndpointSecret_Data {
    std::string endpoint{};

    static constexpr std::string_view record = "GridClearEndpointSecret_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("endpoint", self.endpoint); }
};

struct GridSendMessage_Data {
    std::string destination{};
    std::vector<std::uint8_t> message{};
    std::uint32_t ttl = 0;

    static constexpr std::string_view record = "GridSendMessage_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("destination", self.destination);
        visit("message", self.message);
        visit("ttl", self.ttl);
    }
};

struct GridReceivedMessage_Data {
    std::string source{};
    std::vector<std::uint8_t> message{};

    static constexpr std::string_view record = "GridReceivedMessage_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("source", self.source);
        visit("message", self.message);
    }
};

}  // namespace skiogrid

namespace router {

struct SubscribeEpsecChange_Data {
    std::string endpoint{};

    static constexpr std::string_view record = "SubscribeEpsecChange_Data";
    static constexpr void fields(auto& self, auto&& visit) { visit("endpoint", self.endpoint); }
};

struct EpsecChangeNotification_Data {
    std::string endpoint{};
    bool present = false;

    static constexpr std::string_view record = "EpsecChangeNotification_Data";
    static constexpr void fields(auto& self, auto&& visit) {
        visit("endpoint", self.endpoint);
        visit("present", self.present);
    }
};

}  // namespace router
