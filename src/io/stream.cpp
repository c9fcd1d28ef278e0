#include "io/stream.h"

#include "error/exception.h"
#include "io/selector.h"

namespace io {

namespace {

/// Ends a membership also when the wait throws: the stack below would go on using the selector.
class Membership {
  public:
    Membership(Selector<int>& selector, Selectable& member) : selector_(selector), member_(member) {
        selector_.add(member_, 0);
    }
    ~Membership() { selector_.remove(member_); }
    Membership(const Membership&) = delete;
    Membership& operator=(const Membership&) = delete;

  private:
    Selector<int>& selector_;
    Selectable& member_;
};

}  // namespace

void waitReady(Selectable& stream) {
    if (stream.isReady()) return;
    Selector<int> selector;
    const Membership membership(selector, stream);
    const Selectable& ready = selector.select(wait_t::blocking);
    error::check(&ready == &stream, "Got wrong selectable in waitReady: {}", ready.nameText());
}

}  // namespace io
