// What clients can ask the server about itself by a select: the enumerations and the layouts of
// classes below MetaInfo, and the state of the cluster as ClusterInfo.
//
// Made once at start, read-only after that. Nothing below the two singletons has an id, so a select
// starts at the class MetaInfo or ClusterInfo and gives them whatever its roots are.
#pragma once

#include <memory>
#include <string>

#include "tqlengine/layout_file.h"

namespace tqlengine {

class Engine;

class MetaTree {
  public:
    /// `report_generator` is the path that clients of ClusterInfo are told.
    MetaTree(const Layouts& layouts, const std::string& report_generator);
    ~MetaTree();
    MetaTree(const MetaTree&) = delete;
    MetaTree& operator=(const MetaTree&) = delete;

    /// Makes the singletons known to `engine`, once. This must outlive the engine's use.
    void register_with(Engine& engine);

  private:
    struct Singletons;
    std::unique_ptr<Singletons> singletons_;
};

}  // namespace tqlengine
