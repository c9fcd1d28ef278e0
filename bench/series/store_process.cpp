#include "series/store_process.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

#include "io/exception.h"
#include "io/selector.h"
#include "queues/dialogs.h"
#include "queues/series_kinds.h"
#include "series/measure.h"

namespace bench {

namespace {

constexpr uint64_t kPoolBytes = 32 << 20;
constexpr uint32_t kFirstUid = 1'000'000;
constexpr queues::queue_t kStore = queues::queue_t::tsdb;

std::string program() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "tsdb";
}

}  // namespace

StoreProcess::StoreProcess(const std::string& folder)
    : folder_(folder),
      messenger_(folder + "/fifo", kPoolBytes, policy_),
      queue_(messenger_, clock_) {
    start();
}

void StoreProcess::start() {
    process_ = platform::spawn({.program = program(),
                                .environment = messenger_.access().toEnvironment("smem"),
                                .inherited_fds = {messenger_.access().map_fd},
                                .ends_with_parent = true});
    messenger_.watchEnd(static_cast<uint32_t>(kStore), process_.pid);
    while (true) {
        const std::unique_ptr<queues::event> received = queue_.read();
        if (!received) throw std::runtime_error("tsdb ended");
        if (received->number() == queues::INIT_OK) break;
        if (received->number() == queues::REQUEST_SERVER_CONFIGURATION)
            answer_configuration(*received);
    }
    // Beyond the numbers that its log lines will have, which aren't to be taken for answers.
    while (queue_.new_uid() < kFirstUid) {
    }
}

void StoreProcess::answer_configuration(const queues::event& asked) {
    control::Server_Configuration_Fields fields;
    fields.dbms_tsdb_file_path = folder_ + "/series";
    queue_.send(queues::devent<queues::SERVER_CONFIGURATION>(asked.peer, asked.uid, fields));
}

StoreProcess::~StoreProcess() {
    queue_.send(queues::devent<queues::SYS_EXIT>(kStore, 0, {}));
    pollfd end{process_.pidfd.get(), POLLIN, 0};
    // What it still says is of no interest, but has to be read.
    while (::poll(&end, 1, 1) == 0) {
        io::BareSelector selector;
        selector.add(queue_.front());
        try {
            static_cast<void>(selector.select(io::wait_t::non_blocking));
            static_cast<void>(queue_.read());
        } catch (const io::ENotReady&) {
        }
        selector.remove(queue_.front());
    }
    platform::wait_for_end(process_);
}

void StoreProcess::put(uint32_t series, uint32_t minute, bool wait) {
    const Point made = point(series, minute);
    auto interval = std::make_unique<tsdb::data_interval_continuous_t>();
    interval->start = made.start;
    interval->end = made.end;
    interval->min = interval->avg = interval->max = made.value;
    interval->ngood = 1;
    queues::devent<queues::PUT_DATA> request(
        kStore, queues::kNoReply,
        {queues::queue_t::main, series, tsdb::kStore, tsdb::kContinuousData, {}});
    request.record.data.emplace_back(std::move(interval));
    if (wait)
        static_cast<void>(
            queues::ask(&queue_, request, queues::RETURN_PUT_DATA_ALLOC, "TSDB", "an answer"));
    else
        queue_.send(request);
}

size_t StoreProcess::get(const tsdb::Get_Data_Data& wanted) {
    return queues::get_data(&queue_, wanted).data.size();
}

double StoreProcess::resident_bytes() const {
    std::ifstream statm(fmt::format("/proc/{}/statm", process_.pid));
    double all = 0, resident = 0;
    statm >> all >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

}  // namespace bench
