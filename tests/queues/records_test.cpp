// Every event of the catalogue with random content: there and back, and cut short at every byte.
#include <gtest/gtest.h>
#include <memory>
#include <sstream>

#include "io/exception.h"
#include "queues/detail/codec.h"
#include "queues/event.h"
#include "queues/fdio.h"
#include "queues/records/alarms.h"
#include "queues/records/alert.h"
#include "queues/records/checks.h"
#include "queues/records/control.h"
#include "queues/records/dbms_checks.h"
#include "queues/records/dbms_replication.h"
#include "queues/records/dbms_tql.h"
#include "queues/records/dbms_tsdb.h"
#include "queues/records/network.h"
#include "queues/records/tsdb_requests.h"
#include "support/memory_stream.h"
#include "support/random_records.h"

namespace queues_test {
namespace {

using namespace queues;
using namespace support;

template <int N>
std::unique_ptr<event> random_event(Rng& rng) {
    Filler filler{rng};
    auto made = std::make_unique<devent<static_cast<event_t>(N)>>(
        static_cast<queue_t>(rng.below(25)), static_cast<std::uint32_t>(rng.next()));
    fill(filler, made->record);
    return made;
}

using make_t = std::unique_ptr<event> (*)(Rng&);
template <int... Offsets>
std::vector<make_t> all_makers(std::integer_sequence<int, Offsets...>) {
    return {&random_event<Offsets + 1>...};
}
const std::vector<make_t>& makers() {
    static const std::vector<make_t> kMakers =
        all_makers(std::make_integer_sequence<int, MESSAGE_EXCEPTION - 1>());
    return kMakers;
}

Bytes written(const event& sent, std::size_t area_size = 4096) {
    MemoryIStream nothing({});
    MemoryOStream out(area_size);
    fdio(nothing, out).write(sent);
    return out.bytes;
}

std::unique_ptr<event> read_back(const Bytes& bytes, std::size_t area_size) {
    MemoryIStream in(bytes, area_size);
    MemoryOStream nowhere;
    std::unique_ptr<event> received = fdio(in, nowhere).read();
    EXPECT_TRUE(in.at_end()) << "bytes of " << event_name(received.get()) << " were left over";
    return received;
}

std::string printed(const event& shown) {
    std::ostringstream out;
    shown.print(out);
    return out.str();
}

TEST(Records, ComeBackAsTheyWereThroughAreasOfAnySize) {
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        Rng rng(seed);
        for (const make_t make : makers()) {
            const std::unique_ptr<event> sent = make(rng);
            SCOPED_TRACE(testing::Message() << event_name(sent.get()) << " seed " << seed);
            for (const std::size_t write_area : {8, 9, 23, 4096}) {
                const Bytes bytes = written(*sent, write_area);
                for (const std::size_t read_area : {1, 7, 4096}) {
                    const std::unique_ptr<event> received = read_back(bytes, read_area);
                    ASSERT_TRUE(equal(*sent, *received));
                    ASSERT_EQ(printed(*sent), printed(*received));
                }
            }
            ASSERT_TRUE(equal(*sent, *sent->clone()));
        }
    }
}

TEST(Records, CutShortAtAnyByteEndInEndOfStream) {
    Rng rng(11);
    for (const make_t make : makers()) {
        const std::unique_ptr<event> sent = make(rng);
        SCOPED_TRACE(event_name(sent.get()));
        const Bytes whole = written(*sent);
        for (std::size_t size = 0; size < whole.size(); ++size) {
            MemoryIStream in(
                Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
            MemoryOStream nowhere;
            fdio stream(in, nowhere);
            ASSERT_THROW((void)stream.read(), io::EEndOfStream) << size << " of " << whole.size();
        }
    }
}

TEST(Records, DifferWhenOneFieldDiffers) {
    Rng rng(13);
    for (const make_t make : makers()) {
        const std::unique_ptr<event> one = make(rng);
        const std::unique_ptr<event> other = make(rng);
        other->peer = one->peer;
        other->uid = one->uid;
        EXPECT_EQ(equal(*one, *other), written(*one) == written(*other)) << event_name(one.get());
    }
}

/// A byte turned over anywhere behind the header is read, refused or ends the stream, and nothing
/// else.
TEST(Records, GarbageIsRefusedOrRead) {
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
        Rng rng(seed);
        for (const make_t make : makers()) {
            const std::unique_ptr<event> sent = make(rng);
            SCOPED_TRACE(testing::Message() << event_name(sent.get()) << " seed " << seed);
            const Bytes whole = written(*sent);
            constexpr std::size_t kHeader = 16;
            for (int i = 0; i < 20 && whole.size() > kHeader; ++i) {
                Bytes bytes = whole;
                bytes[kHeader + rng.below(bytes.size() - kHeader)] =
                    static_cast<std::uint8_t>(rng.next());
                MemoryIStream in(bytes);
                MemoryOStream nowhere;
                fdio stream(in, nowhere);
                try {
                    EXPECT_NE(stream.read(), nullptr);
                } catch (const EMalformedRecord&) {
                } catch (const io::EEndOfStream&) {
                }
            }
        }
    }
}

}  // namespace
}  // namespace queues_test
