#include "scripted_family.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "error/exception.h"
#include "io/exception.h"
#include "processes.h"

namespace family {

namespace {

constexpr uint64_t kPoolBytes = 1U << 24;
constexpr int kPatience_s = 60;

void write_line(int fd, std::string_view line) {
    const std::string text = std::string(line) + "\n";
    if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw error::EFatal("a line was not taken");
}

struct Pipe {
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) throw error::ESystemError("pipe2", errno);
        out = platform::Fd(fds[0]);
        in = platform::Fd(fds[1]);
    }
    platform::Fd out, in;
};

}  // namespace

// ---- in the child -------------------------------------------------------------------------------

Actor::Actor(queues::queue_t id, const io::PoolAccess& access, int orders_fd, int report_fd)
    : orders_fd_(orders_fd),
      report_fd_(report_fd),
      messenger(static_cast<uint32_t>(id), access),
      queue(messenger, clock_) {}

void Actor::report(std::string_view line) {
    messenger.flush();
    write_line(report_fd_, line);
}

std::string Actor::order() {
    messenger.flush();
    std::string line;
    char next = 0;
    while (::read(orders_fd_, &next, 1) == 1 && next != '\n') line += next;
    return line;
}

void Actor::stop_in_order() {
    messenger.initiateShutdown();
    while (!queue.lost_peers().test(queues::queue_t::main)) (void)queue.read();
    messenger.completeShutdown();
}

[[noreturn]] void ScriptedFamily::play(queues::queue_t id, const Script& script, int orders_fd,
                                       int report_fd) {
    ::alarm(kPatience_s);  // a hanging script ends, and shows by the signal
    const int errors = ::open(errors_path(id).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(errors, STDERR_FILENO);
    int code = 0;
    try {
        Actor actor(id, messenger_.access(), orders_fd, report_fd);
        script(actor);
    } catch (const error::Exception& failure) {
        std::fprintf(stderr, "Caught: %s\n", failure.what());
        code = 1;
    }
    ::_exit(testing::Test::HasFailure() ? 98 : code);
}

// ---- in the parent ------------------------------------------------------------------------------

ScriptedFamily::ScriptedFamily(uint32_t slice_bytes)
    : slice_bytes_(slice_bytes),
      messenger_(dir_.file("fifo"), kPoolBytes, *this),
      queue_(messenger_, clock_),
      timer_(clock_) {
    selector_.add(queue_.front(), 0);
    selector_.add(messenger_.newSiblings(), 0);
    selector_.add(timer_, 0);
}

ScriptedFamily::~ScriptedFamily() {
    for (auto& [id, child] : children_) {
        if (child.said) selector_.remove(*child.said);
        if (!child.running) continue;
        ::kill(child.process.pid, SIGKILL);
        selector_.remove(*child.end);
        (void)platform::wait_for_end(child.process);
    }
    selector_.remove(timer_);
    selector_.remove(messenger_.newSiblings());
    selector_.remove(queue_.front());
}

std::string ScriptedFamily::errors_path(queues::queue_t id) const {
    return dir_.file("errors." + std::to_string(static_cast<int>(id)));
}

ScriptedFamily::Child& ScriptedFamily::fresh_child(queues::queue_t id) {
    Child& child = children_[id];
    error::check(!child.running, "{} runs already", queues::queue_name(id));
    if (child.said) selector_.remove(*child.said);
    child = Child();
    expected_.insert(static_cast<uint32_t>(id));
    return child;
}

void ScriptedFamily::watch_end(queues::queue_t id, Child& child) {
    child.running = true;
    child.end = std::make_unique<io::FdSelectable>(child.process.pidfd.get(), "end of a child");
    selector_.add(*child.end, 0);
    messenger_.watchEnd(static_cast<uint32_t>(id), child.process.pid);
}

void ScriptedFamily::start(queues::queue_t id, Script script) {
    Child& child = fresh_child(id);
    Pipe orders, reports;
    child.process.pid = ::fork();
    if (child.process.pid == 0) {
        // The test's ends of these and other pipes stay open here and do no harm.
        play(id, script, orders.out.get(), reports.in.get());
    }
    child.process.pidfd = platform::open_pidfd(child.process.pid);
    child.orders = std::move(orders.in);
    child.reports = std::move(reports.out);
    ::fcntl(child.reports.get(), F_SETFL, O_NONBLOCK);
    child.said = std::make_unique<io::FdSelectable>(child.reports.get(), "reports of a child");
    selector_.add(*child.said, 0);
    watch_end(id, child);
    ASSERT_TRUE(
        serve_until([&] { return messenger_.isUp(static_cast<uint32_t>(id)) || !child.running; }));
}

void ScriptedFamily::start_program(queues::queue_t id, const std::string& program) {
    Child& child = fresh_child(id);
    const io::PoolAccess& access = messenger_.access();
    child.process = spawn_into_files({.program = program,
                                      .arguments = {},
                                      .environment = access.toEnvironment("smem"),
                                      .inherited_fds = {access.map_fd}},
                                     "", errors_path(id));
    watch_end(id, child);
}

void ScriptedFamily::order(queues::queue_t id, std::string_view line) {
    messenger_.flush();
    write_line(children_.at(id).orders.get(), line);
}

std::string ScriptedFamily::next_report(queues::queue_t id) {
    Child& child = children_.at(id);
    if (!serve_until([&] { return !child.lines.empty() || !child.said; }) || child.lines.empty())
        return "";
    std::string line = std::move(child.lines.front());
    child.lines.pop_front();
    return line;
}

platform::ExitStatus ScriptedFamily::kill(queues::queue_t id) {
    ::kill(pid(id), SIGKILL);
    return wait_for_end(id);
}

platform::ExitStatus ScriptedFamily::wait_for_end(queues::queue_t id) {
    Child& child = children_.at(id);
    serve_until([&] { return !child.running; });
    return child.status;
}

std::string ScriptedFamily::errors(queues::queue_t id) const {
    return read_file(errors_path(id));
}

bool ScriptedFamily::serve_until(const std::function<bool()>& done) {
    timer_.set_expiry(Time::now(clock_) + Time(kPatience_s));
    timed_out_ = false;
    while (!done() && !timed_out_) serve_once();
    timer_.set_expiry(Time::far_future());
    if (timed_out_) ADD_FAILURE() << "nothing happened in " << kPatience_s << " s";
    return !timed_out_;
}

std::unique_ptr<queues::event> ScriptedFamily::next_event() {
    serve_until([&] { return !events_.empty(); });
    return take_event();
}

std::unique_ptr<queues::event> ScriptedFamily::take_event() {
    if (events_.empty()) return nullptr;
    std::unique_ptr<queues::event> first = std::move(events_.front());
    events_.pop_front();
    return first;
}

void ScriptedFamily::serve_once() {
    const io::Selectable& ready = selector_.select(io::wait_t::blocking);
    if (is_timer(ready)) {
        timed_out_ = true;
    } else if (&ready == &messenger_.newSiblings()) {
        (void)messenger_.newSiblings().take();
    } else if (&ready == &queue_.front()) {
        if (std::unique_ptr<queues::event> received = queue_.read())
            events_.push_back(std::move(received));
    } else {
        for (auto& [id, child] : children_) look_at_child(id, child, ready);
    }
}

void ScriptedFamily::look_at_child(queues::queue_t id, Child& child, const io::Selectable& ready) {
    if (&ready == child.said.get())
        read_reports(child);
    else if (&ready == child.end.get())
        note_end(id, child);
}

void ScriptedFamily::read_reports(Child& child) {
    char bytes[4096];
    const ssize_t count = ::read(child.reports.get(), bytes, sizeof bytes);
    if (count == 0) {
        selector_.remove(*child.said);
        child.said.reset();
    }
    for (ssize_t i = 0; i < count; ++i) {
        if (bytes[i] != '\n') {
            child.partial_line += bytes[i];
            continue;
        }
        child.lines.push_back(std::exchange(child.partial_line, {}));
    }
}

void ScriptedFamily::note_end(queues::queue_t id, Child& child) {
    selector_.remove(*child.end);
    child.end.reset();
    child.status = platform::wait_for_end(child.process);
    child.running = false;
    messenger_.siblingGone(static_cast<uint32_t>(id));
}

}  // namespace family
