// The event trace: a file with a line "N:" at the start of each event and a line "T: ", the
// milliseconds it took and its label at the end. Switched on by the configuration; a trace that
// can't be written any more falls silent.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

namespace dbms {

class EventTrace {
  public:
    /// Opens the file at `path` for writing; an empty path traces nothing. Says in the log whether
    /// events are traced.
    explicit EventTrace(const std::string& path);

    /// Whether there is a file that takes lines; without one begin() and end() do nothing.
    [[nodiscard]] bool active() const { return out_.is_open() && out_.good(); }

    void begin();
    /// `label` is the event's name, or what else was done.
    void end(uint64_t elapsed_us, std::string_view label);

  private:
    std::ofstream out_;
};

}  // namespace dbms
