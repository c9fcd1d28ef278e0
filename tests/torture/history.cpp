#include "workload.h"

namespace torture {

History::History(std::optional<Model> start) {
    states_.push_back({std::move(start), 0, 0, 0});
}

void History::begin(std::optional<Model> model, size_t at) {
    states_.push_back({std::move(model), at, kNever, kNever});
}

void History::returned(size_t at) {
    states_.back().returned_at = at;
}

void History::durable(size_t at) {
    for (size_t i = states_.size(); i-- > 0 && states_[i].durable_at == kNever;)
        if (states_[i].returned_at != kNever) states_[i].durable_at = at;
}

History::Range History::after_power_cut(size_t completed, size_t begun) const {
    Range range{0, 0};
    for (size_t i = 1; i < states_.size(); ++i) {
        if (states_[i].durable_at <= completed) range.first = i;
        // One that wrote nothing needs no operation.
        if (states_[i].begun_at < begun || range.first == i) range.last = i;
    }
    return range;
}

History::Range History::after_death(size_t completed, size_t begun) const {
    Range range{0, 0};
    for (size_t i = 1; i < states_.size(); ++i) {
        if (states_[i].returned_at <= completed) range.first = i;
        if (states_[i].begun_at < begun || range.first == i) range.last = i;
    }
    return range;
}

}  // namespace torture
