// SeriesStore::Step: for the implementation of SeriesStore only.
#pragma once

#include <vector>

#include "tsdb/series_store.h"

namespace tsdb {

/// A change that is taken back as a whole unless it is done.
class SeriesStore::Step {
  public:
    Step(SeriesStore& store, uint32_t index, const Known* series = nullptr)
        : store_(store), index_(index), series_(series) {
        if (series != nullptr) counts_ = series->counts;
        store_.storage_.begin_step();
    }
    ~Step() {
        if (done_) return;
        store_.storage_.undo_step();
        if (store_.storage_.in_transaction())
            store_.known_.erase(index_);  // its counts may be ahead now
        else
            store_.abort();
    }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;
    void done() {
        if (series_ != nullptr && series_->counts != counts_)
            store_.storage_.set_counts(index_, series_->counts);
        store_.storage_.end_step();
        done_ = true;
    }

  private:
    SeriesStore& store_;
    const uint32_t index_;
    const Known* series_;
    std::vector<uint32_t> counts_;
    bool done_ = false;
};

}  // namespace tsdb
