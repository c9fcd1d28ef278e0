// A small installation as an older server left it, with something of everything that a conversion
// has to tell apart.
#pragma once

#include "support/old_database.h"

namespace support {

inline std::vector<OldObject> old_world() {
    const auto named = [](const std::string& name) { return text_record(51, name); };
    const RecordBytes active = bool_record(502, true);
    const RecordBytes passive = bool_record(502, false);
    const auto inherits = [](uint32_t from) { return id_record(59, {1, from}); };
    return {
        {{0, 1}, {}, 1, {named("Root domain"), text_record(512, "")}},
        {{1, 10}, {0, 1}, 1, {named("site")}},
        {{1, 20}, {1, 10}, 7, {named("host")}},
        // Agent checks in nested groups.
        {{1, 30}, {1, 20}, 12, {named("system")}},
        {{1, 31}, {1, 30}, 12, {named("disk")}},
        {{1, 32}, {1, 31}, 11, {named("root disk"), active, inherits(93)}},
        {{1, 33}, {1, 30}, 11, {named("off"), passive}},
        {{1, 34}, {1, 20}, 13, {named("ping")}},
        {{1, 35}, {1, 34}, 22, {named("nightly"), inherits(95)}},
        {{1, 36}, {1, 20}, 15, {named("traffic")}},
        {{1, 37}, {1, 36}, 14, {named("octets"), active}},
        {{1, 38}, {1, 20}, 93, {named("machines")}},
        {{1, 39}, {1, 38}, 90, {named("one")}},
        {{1, 40}, {1, 39}, 89, {named("load"), active}},
        {{1, 41}, {1, 40}, 46, {named("month"), inherits(95)}},
        // Of a nodetype that is in no list, though it has all that makes one.
        {{1, 42}, {1, 40}, 80, {active, inherits(93)}},
        {{1, 45}, {1, 20}, 3, {named("view of a node")}},
        // Records of a list that nobody knows of, on objects that belong into none.
        {{1, 43}, {1, 20}, 69, {active, mark_record(65, true, {1, 20}, {}, {1, 44})}},
        {{1, 44}, {1, 43}, 73, {named("series"), mark_record(65, false, {1, 43}, {}, {1, 44})}},
        {{1, 46}, {1, 20}, 12, {named("empty"), mark_record(65, true, {9, 9}, {}, {1, 46})}},
        {{1, 50}, {1, 10}, 3, {named("overview")}},
        {{1, 51}, {1, 10}, 3, {named("has one"), word_record(2601, 9, 33)}},
        {{1, 52}, {1, 10}, 3, {named("explicit null"), null_record(2601, 9)}},
        {{1, 53}, {1, 10}, 10, {named("report")}},
        {{1, 54}, {1, 53}, 22, {named("plan of a report"), inherits(95)}},
        {{1, 95}, {1, 10}, 22, {named("plan")}},
        {{1, 11}, {0, 1}, 1, {named("quiet")}},
        {{1, 12}, {1, 11}, 1, {named("quieter")}},
        {{1, 13}, {1, 12}, 3, {named("deep view")}},
        {{1, 60}, {0, 1}, 64, {named("branch office")}},
        {{1, 61}, {1, 60}, 1, {named("mounted")}},
        {{1, 62}, {1, 61}, 7, {named("far host")}},
        {{1, 63}, {1, 62}, 11, {named("far check"), active}},
        {{1, 64}, {1, 61}, 3, {named("far view")}},
        {{1, 90}, {0, 1}, 34, {named("class")}},
        {{1, 91}, {1, 90}, 59, {}},
        {{1, 92}, {1, 91}, 60, {}},
        {{1, 93}, {1, 92}, 61, {named("model")}},
        {{1, 94}, {1, 93}, 33, {inherits(93)}},
        // Active, but no check; and of a nodetype that nobody knows.
        {{1, 55}, {0, 1}, 39, {named("link"), active}},
        {{1, 80}, {0, 1}, 200, {named("?"), record(7777, 13, {0, 0, 0, 3, 1, 2, 3}), active}},
        // What deletes have left: a waiting tombstone with its subtree, and a finished one.
        {{1, 70}, {0, 5}, 0, {}},
        {{1, 71}, {1, 70}, 7, {named("gone")}},
        {{1, 72}, {1, 71}, 11, {active, mark_record(65, true, {1, 71}, {1, 37}, {1, 72})}},
        {{1, 73}, {0, 3}, 0, {id_record(3800, {1, 2}), id_record(63, {1, 60})}},
    };
}

/// Its lists as list_text() shows them.
inline constexpr const char* kOldWorldActive =
    "0.1>1.63 1.10>1.40 1.20>1.40 1.30>1.32 1.31>1.32 1.32* 1.34* 1.36>1.37 1.37* 1.38>1.40 "
    "1.39>1.40 1.40* 1.60>1.63 1.61>1.63 1.62>1.63 1.63*";
inline constexpr const char* kOldWorldInheriting =
    "0.1>1.94 1.10>1.41 1.20>1.41 1.30>1.32 1.31>1.32 1.32* 1.34>1.35 1.35* 1.38>1.41 1.39>1.41 "
    "1.40>1.41 1.41* 1.90>1.94 1.91>1.94 1.92>1.94 1.93>1.94 1.94*";

}  // namespace support
