// The commands that ask a running family. Data goes to the output stream, remarks to the error
// stream; failures are exceptions.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tarmik/api_client.h"

namespace cli {

struct Output {
    std::FILE* data = stdout;
    std::FILE* remarks = stderr;
    bool json = false;
    bool colored = false;
    /// Whether a line of progress may be written over the former one.
    bool remarks_are_terminal = false;

    void print(std::string_view text) const {
        (void)std::fwrite(text.data(), 1, text.size(), data);
    }
    void remark(std::string_view text) const {
        (void)std::fwrite(text.data(), 1, text.size(), remarks);
        (void)std::fflush(remarks);
    }
};

struct SelectArguments {
    std::string pattern;
    std::vector<std::string> roots;  ///< none: the root of the tree
};

struct ChangeArguments {
    std::string class_name;  ///< of a create
    std::string parent;      ///< of a create
    std::string id;          ///< of an update or delete; of a create that chooses it
    std::optional<std::string> version;
    std::vector<std::string> assignments;
    bool ignore_unknown = false;
    std::optional<std::string> inherits;  ///< object to inherit from
    std::vector<std::string> reset;       ///< properties of an update that become inherited again
    std::optional<std::string> template_name;  ///< of a create that starts from a template
};

struct TemplatesArguments {
    std::string parent;
    std::string class_name;  ///< empty: all, and only their names
};

/// Refuses a wrong pattern here, where its place can be shown: CommandError with kUsage.
void check_pattern(const std::string& pattern);

struct LogLevelArguments {
    std::string logger;   ///< "*" for all
    std::string level;    ///< its text
    std::string process;  ///< empty: the server and the gateway
};

/// Empty texts: what the gateway takes without them.
struct SeriesArguments {
    std::string id;
    std::string property;
    std::string from;
    std::string to;
    std::string count;
    std::string resolution;
    bool graph = false;
};

class Commands {
  public:
    /// Both must outlive this object.
    Commands(Api& api, const Output& output) : api_(api), output_(output) {}

    /// Prints the tree of results.
    void select(const SelectArguments& arguments);
    /// Lists the templates under an object; those of one class with their values.
    void templates(const TemplatesArguments& arguments);
    /// Prints the id of the new object.
    void create(const ChangeArguments& arguments);
    /// Prints the new version.
    void update(const ChangeArguments& arguments);
    void remove(const ChangeArguments& arguments);
    void classes();
    void properties();
    /// Prints the values of the server's metrics below a path; all for an empty one.
    void metrics(const std::string& path);
    void log_level(const LogLevelArguments& arguments);
    /// Prints the records of a time series, a line each, or draws them where they can be drawn.
    void series(const SeriesArguments& arguments);
    /// Creates the objects of a file, from the top down. What exists already under its parent, by
    /// the key of its class, is left as it is. Prints how many were created.
    void load(const std::string& path);

  private:
    Api& api_;
    const Output& output_;
};

}  // namespace cli
