// How the query engine finds objects: by id, and by what an index knows about a step of a pattern.
//
// The engine asks a list of resolvers in turn. The classes that implement this know storage; the
// engine doesn't.
#pragma once

#include "tqlengine/object_handler.h"

namespace tqlengine {

class TqlIdResolver {
  public:
    virtual ~TqlIdResolver() = default;

    /// The object with this id, a third component (TqlObjectHandler::tqlChild) followed too. Empty
    /// when there is none, whatever `id` holds; a failure to load it is logged and gives empty as
    /// well.
    virtual HandlerRef find(const tql::id_t& id) = 0;

    /// Tries to answer one step of a pattern from an index. True: `out`, empty on entry, holds
    /// every object that can match the step below `origin`. They are candidates: each is still
    /// tested against the whole step, and those outside the subtree of `origin` are dropped, so
    /// `out` may hold too many but never too few; no object twice. False: no index fits, `out` is
    /// left empty and the engine walks. tqlengine::choose_shortcut() tells which index fits.
    virtual bool obviousMatches(HandlerList& out, const tql::id_t& origin,
                                const tql::pattern_t& pattern) = 0;

    /// Takes over the reference to a handler whose object a delete has just taken out of the tree,
    /// and with it what remains to be done about the objects below.
    virtual void erase(HandlerRef handler) = 0;

    /// Removes stored objects that name `id` as their parent while no object has this id: leftovers
    /// of an aborted create. Called with the id of an object about to be created. Nothing by
    /// default.
    virtual void discardOrphans(const tql::id_t& id);
};

}  // namespace tqlengine
