// What a user is told at the command line when the server refuses: each code that a query or a
// write can end with, reached with the commands that people type.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "processes.h"
#include "running_family.h"

namespace family {
namespace {

TEST(Codes, EachIsReachedFromTheCommandLine) {
    RunningFamily family;
    int count = 0;
    /// The exit code and what stands in the error stream.
    const auto run = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "--url=" + family.url());
        const std::string said = family.dir().file(fmt::format("said{}", ++count));
        const platform::ExitStatus status = platform::wait_for_end(
            spawn_into_files({.program = RunningFamily::program("tarmik"), .arguments = arguments},
                             family.dir().file("output"), said));
        return fmt::format("{} {}", status.code, read_file(said));
    };
    const std::vector<std::vector<std::string>> preparations{
        {"create", "Domain", "--parent", "0.1", "--id", "7.1", "name=branch"},
        {"create", "Domain", "--parent", "0.1", "--id", "7.2", "name=other"},
        {"create", "Node", "--parent", "7.1", "--id", "7.3", "name=host", "alertGroup=7.4"},
        // What the node refers to turns out to be no alert group, so that it can't be moved.
        {"create", "Domain", "--parent", "0.1", "--id", "7.4", "name=third"},
    };
    for (const auto& arguments : preparations) EXPECT_EQ(run(arguments), "0 ");

    std::string many_steps = "Domain > ( .";
    for (int i = 0; i < 20'000; ++i) many_steps += "|.";
    const struct {
        std::vector<std::string> arguments;
        int exit;
        const char* said;
    } cases[] = {
        {{"update", "9.9", "label=x"}, 4, "9.9 not found (code 1, ERR_NO_SUCH_ID)"},
        {{"update", "7.1", "label=x", "--version", "1.1"},
         5,
         "Someone else has updated the object (code 3, ERR_VERSION)"},
        {{"create", "Domain", "--parent", "0.1", "name=Branch"},
         4,
         "EXISTS{7.1} Duplicate value given for primary key (code 4, ERR_EXISTS)"},
        {{"create", "Domain", "--parent", "7.3", "name=x"},
         4,
         "Domain not allowed as child of Node (code 5, ERR_ILLEGAL_CHILD)"},
        {{"update", "7.1", "agentId=x"},
         4,
         "Attempted update of unknown property \"agentId\" (code 7, ERR_NO_SUCH_PROPERTY)"},
        {{"update", "7.1", "countNodes=5"},
         4,
         "Cannot update computed property countNodes (code 8, ERR_CONST_PROPERTY)"},
        {{"update", "7.1", R"(label:={"type":"uint","value":5})"},
         4,
         "Type mismatch for property label (code 9, ERR_ILLEGAL_TYPE)"},
        {{"update", "7.1", "name:=null"},
         4,
         "Null given for property name (code 10, ERR_ILLEGAL_VALUE)"},
        {{"select", "Domain*{label contains \"x\"}"},
         4,
         "Unknown relative operator (code 11, ERR_INCOMPARABLE)"},
        {{"select", many_steps + ")"},
         4,
         "The pattern has more than 20000 steps (code 12, ERR_NOT_IMPLEMENTED)"},
        {{"update", "7.1", "comment=" + std::string(3000, 'x')},
         4,
         "No space in serialization cache for property 524 (code 14, ERR_BACKEND)"},
        {{"delete", "0.1"}, 4, "Cannot delete this object (code 15, ERR_ACCESS_DENIED)"},
        {{"update", "7.1", "parentId=7.2"},
         4,
         "MOVE_ERR{7.3:alertGroup} (code 15, ERR_ACCESS_DENIED)"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(run(one.arguments), fmt::format("{} tarmik: {}\n", one.exit, one.said));
    EXPECT_EQ(family.stop().code, 0);
}

}  // namespace
}  // namespace family
