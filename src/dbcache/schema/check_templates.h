// The ready-made templates of agent checks: a process that must be there, and the logs that an
// agent watches. Offered under the groups in which such checks stand.
//
// A client puts what the user typed in place of "$checkName" and creates the check with it as
// checkName, which gives agent id and name.
#pragma once

#include "dbcache/tql_template_handler.h"

namespace dbcache {

/// What the three have in common: fixed values.
class AgentCheckTemplate : public TqlTemplateHandler {
  public:
    void tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) final;

  protected:
    struct Texts {
        uint32_t check_type;
        std::string_view good;
        std::string_view warn;
        std::string_view alert;
        std::string_view shown;
    };
    AgentCheckTemplate(TqlObjectHandler& group, const Texts& texts)
        : TqlTemplateHandler(group, 0), texts_(texts) {}

  private:
    const Texts texts_;
};

class TqlProcessPresenceTemplateHandler final : public AgentCheckTemplate {
  public:
    explicit TqlProcessPresenceTemplateHandler(TqlObjectHandler& group)
        : AgentCheckTemplate(group, {1, "Process state is good", "Process state is suspicious",
                                     "Process state is bad", "Add process"}) {}
};

class TqlForwardLogTemplateHandler final : public AgentCheckTemplate {
  public:
    explicit TqlForwardLogTemplateHandler(TqlObjectHandler& group)
        : AgentCheckTemplate(group, {9, "Log OK", "Log suspicious", "Log is bad", "Add LogCheck"}) {
    }
};

class SystemdTemplateHandler final : public AgentCheckTemplate {
  public:
    explicit SystemdTemplateHandler(TqlObjectHandler& group)
        : AgentCheckTemplate(group, {9, "Log OK", "Log suspicious", "Log is bad", "Add LogCheck"}) {
    }
};

}  // namespace dbcache
