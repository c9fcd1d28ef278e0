#include "tqlengine/meta_tree.h"

#include "tqlengine/detail/meta_handlers.h"
#include "tqlengine/engine.h"

namespace tqlengine {

struct MetaTree::Singletons {
    detail::MetaInfoHandler meta_info;
    detail::ClusterInfoHandler cluster_info;
};

MetaTree::MetaTree(const Layouts& layouts, const std::string& report_generator)
    : singletons_(new Singletons{detail::MetaInfoHandler(layouts),
                                 detail::ClusterInfoHandler(report_generator)}) {}

MetaTree::~MetaTree() = default;

void MetaTree::register_with(Engine& engine) {
    engine.add_singleton(singletons_->meta_info);
    engine.add_singleton(singletons_->cluster_info);
}

}  // namespace tqlengine
