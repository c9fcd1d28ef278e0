// Where the bytes of an answer go: memory of one size that is written over and over, as the pool of
// the family is.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "io/stream.h"
#include "protocol/ioprim.h"
#include "queues/event.h"

namespace bench {

class AnswerWire {
  public:
    void write(const queues::event& answer) {
        answer.write_record(primitives_);
        primitives_.commit();
    }

  private:
    class Sink final : public io::OStream {
      public:
        void name(std::string& out) const override { out += "Sink"; }
        [[nodiscard]] bool isReady() const override { return true; }
        size_t writeBegin(uint8_t*& out) override {
            out = area_.data();
            return area_.size();
        }
        void writeCommit(size_t) override {}
        [[nodiscard]] bool hasPendingData() const override { return false; }
        void closeWrite() override {}

      private:
        std::vector<uint8_t> area_ = std::vector<uint8_t>(64 << 10);
    };
    /// An event is written to a pair of streams.
    class NoInput final : public io::IStream {
      public:
        void name(std::string& out) const override { out += "NoInput"; }
        [[nodiscard]] bool isReady() const override { return true; }
        size_t readBegin(const uint8_t*&) override { throw std::logic_error("nothing is read"); }
        void readCommit(size_t) override {}
        void closeRead() override {}
    };

    NoInput no_input_;
    Sink sink_;
    protocol::ioprim primitives_{no_input_, sink_};
};

}  // namespace bench
