// What a reference in a node class means to an object that follows the class: a client asks before
// it creates such an object, or changes one.
#pragma once

#include "dbms/services.h"
#include "queues/event.h"

namespace dbms {

/// For each reference the reply has a step that isn't `inside`, with the reference, and behind it
/// the candidates as steps that are. The empty id among these stands for the object that doesn't
/// exist yet. Fails for an id or a parent that names nothing, and as the translation of an
/// inherited value does.
void ev_nodeclass_translate(EventContext& context, queues::event& received);

}  // namespace dbms
