#include "platform/random.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <sys/random.h>
#include <unistd.h>

#include "error/exception.h"
#include "platform/clock.h"

namespace platform {

struct Random::State {
    // The size that gives the same sequence as rand().
    std::array<char, 128> table{};
    random_data generator{};

    uint16_t draw() {
        int32_t number = 0;
        ::random_r(&generator, &number);
        return static_cast<uint16_t>(number);
    }
};

Random::Random(uint32_t seed) : state_(std::make_unique<State>()) {
    ::initstate_r(seed, state_->table.data(), state_->table.size(), &state_->generator);
}

Random::Random(const Clock& clock)
    : Random(static_cast<uint32_t>(::getpid()) ^ static_cast<uint32_t>(clock.wall().seconds)) {}

Random::~Random() = default;

void Random::random_fill(std::span<uint8_t> buffer) {
    for (std::size_t i = 0; i < buffer.size(); i += 2) {
        const uint16_t number = state_->draw();
        buffer[i] = static_cast<uint8_t>(number);
        if (i + 1 < buffer.size()) buffer[i + 1] = static_cast<uint8_t>(number >> 8);
    }
}

uint32_t Random::next_u32() {
    const uint32_t low = state_->draw();
    return low | static_cast<uint32_t>(state_->draw()) << 16;
}

void system_entropy(std::span<uint8_t> buffer) {
    while (!buffer.empty()) {
        const ssize_t got = ::getrandom(buffer.data(), buffer.size(), 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            throw error::ESystemError("Could not read system entropy", errno);
        }
        buffer = buffer.subspan(static_cast<std::size_t>(got));
    }
}

}  // namespace platform
