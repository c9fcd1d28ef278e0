#include "platform/crash_dump.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cxxabi.h>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <typeinfo>
#include <ucontext.h>
#include <unistd.h>

#include "platform/detail/crash_trace.h"

namespace platform {

namespace {

using detail::CrashText;

/// A dump that takes longer is given up, and the process ends.
constexpr unsigned kDumpLimit_s = 30;
/// The child that looks up names runs on it too. Memory is taken as it is used.
constexpr size_t kStackBytes = 1U << 20;
constexpr const char* kNamelessDump = "quenmora.dmp";
constexpr std::array kSignals = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

/// All that the handler needs, made before it is needed.
struct Prepared {
    std::array<char, 4096> program{};
    std::array<char, 4096> beside_program{};
    std::array<char, 4096> in_directory{};
    std::array<char, 512> reason{};
    detail::Frames frames;
    std::atomic<bool> busy{false};
    std::atomic<bool> reason_told{false};
};

Prepared& prepared() {
    static constinit Prepared the_one;
    return the_one;
}

template <size_t kSize>
void keep(std::array<char, kSize>& place, std::string_view text) {
    const size_t length = std::min(text.size(), kSize - 1);
    text.copy(place.data(), length);
    place[length] = '\0';
}

/// Opens the first place where a file can be made and names it in `path`; -1 for none. The file of
/// an earlier crash makes room; a link in its place is not followed.
int create_dump(CrashText& remarks, const char*& path) {
    const Prepared& at = prepared();
    for (const char* place : {at.beside_program.data(), at.in_directory.data(), kNamelessDump}) {
        if (*place == '\0') continue;
        const int fd =
            ::open(place, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
        path = place;
        if (fd >= 0) return fd;
        remarks << "Failed to create dump file '" << place << "' (error "
                << static_cast<uint64_t>(errno) << ")\n";
    }
    return -1;
}

const char* signal_name(int number) {
    switch (number) {
        case SIGSEGV:
            return "SIGSEGV, invalid memory reference";
        case SIGABRT:
            return "SIGABRT, abort";
        case SIGBUS:
            return "SIGBUS, memory that isn't there";
        case SIGFPE:
            return "SIGFPE, arithmetic error";
        case SIGILL:
            return "SIGILL, illegal instruction";
        default:
            return "unknown signal";
    }
}

const void* interrupted_at(const void* context) {
    const auto& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
    return reinterpret_cast<const void*>(machine.gregs[REG_RIP]);
#elif defined(__aarch64__)
    return reinterpret_cast<const void*>(machine.pc);
#else
    (void)machine;
    return nullptr;
#endif
}

void copy_mappings(CrashText& out) {
    const int maps = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (maps < 0) return;
    std::array<char, 512> piece;
    for (ssize_t count; (count = ::read(maps, piece.data(), piece.size())) > 0;)
        out << std::string_view(piece.data(), static_cast<size_t>(count));
    ::close(maps);
}

/// Writes all there is to tell; 0, or the errno of what failed.
int write_dump(int fd, int number, const siginfo_t& info) {
    Prepared& at = prepared();
    CrashText out(fd);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    out << "Crash dump of " << at.program.data() << ", process "
        << static_cast<uint64_t>(::getpid()) << ", " << static_cast<uint64_t>(now.tv_sec)
        << " s since 1970\nSignal " << static_cast<uint64_t>(number) << ": " << signal_name(number)
        << "\n";
    if (info.si_code <= 0)
        out << "Sent by process " << static_cast<uint64_t>(info.si_pid) << "\n";
    else if (number != SIGABRT)
        (out << "At address ").hex(reinterpret_cast<uintptr_t>(info.si_addr)) << "\n";
    if (at.reason[0] != '\0') out << "Reason: " << at.reason.data() << "\n";
    out << "\nStack of the thread, the innermost function first:\n";
    (void)out.flush();
    detail::write_trace(fd, at.frames);
    out << "\nMappings of the memory:\n";
    copy_mappings(out);
    (void)out.flush();
    return out.error();
}

void end_by(int number) {
    ::signal(number, SIG_DFL);
    ::raise(number);  // takes effect when the handler returns
}

void on_crash(int number, siginfo_t* info, void* context) {
    const int errno_before = errno;
    if (prepared().busy.exchange(true)) return end_by(number);
    // A handler that hangs must not keep the process from being started again.
    ::signal(SIGALRM, SIG_DFL);
    sigset_t alarm_only;
    ::sigemptyset(&alarm_only);
    ::sigaddset(&alarm_only, SIGALRM);
    ::sigprocmask(SIG_UNBLOCK, &alarm_only, nullptr);
    ::alarm(kDumpLimit_s);
    detail::capture_frames(interrupted_at(context), prepared().frames);
    CrashText remarks(STDERR_FILENO);
    const char* path = nullptr;
    const int fd = create_dump(remarks, path);
    (void)remarks.flush();
    const int failure = write_dump(fd >= 0 ? fd : STDERR_FILENO, number, *info);
    if (fd >= 0 && failure != 0)
        remarks << "Failed to save dump file to '" << path << "' (error "
                << static_cast<uint64_t>(failure) << ")\n";
    else if (fd >= 0)
        remarks << "An application error has been detected. Please report this error and submit "
                   "the dump file in '"
                << path << "' along with your error report\n";
    (void)remarks.flush();
    errno = errno_before;
    end_by(number);
}

/// An exception that nobody catches has unwound nothing yet: the abort shows where it was thrown.
[[noreturn]] void on_terminate() {
    std::string reason = "terminated without an exception";
    if (const std::type_info* type = abi::__cxa_current_exception_type()) {
        int status = 0;
        char* readable = abi::__cxa_demangle(type->name(), nullptr, nullptr, &status);
        reason = std::string("unhandled exception ") + (readable ? readable : type->name());
        std::free(readable);
        // One of another family ends here once more, with its type told already.
        keep(prepared().reason, reason);
        try {
            if (prepared().reason_told.exchange(true)) std::abort();
            std::rethrow_exception(std::current_exception());
        } catch (const std::exception& thrown) {
            reason += std::string(": ") + thrown.what();
        }
    }
    keep(prepared().reason, reason);
    (void)(CrashText(STDERR_FILENO) << reason << "\n");
    std::abort();
}

constexpr bool watched_by_sanitizer() {
#if defined(__SANITIZE_ADDRESS__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return true;
#endif
#endif
    return false;
}

/// A stack of its own for the handlers of this thread, with a page below that nobody may touch. It
/// is never given back. Without memory for it the handlers run on the ordinary stack.
void give_handlers_a_stack() {
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    void* area = ::mmap(nullptr, kStackBytes + page, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (area == MAP_FAILED) return;
    ::mprotect(area, page, PROT_NONE);
    stack_t stack{};
    stack.ss_sp = static_cast<char*>(area) + page;
    stack.ss_size = kStackBytes;
    ::sigaltstack(&stack, nullptr);
}

std::string own_path() {
    std::error_code failure;
    std::string path = std::filesystem::read_symlink("/proc/self/exe", failure).string();
    // Of a program that was replaced while it ran.
    constexpr std::string_view kReplaced = " (deleted)";
    if (path.ends_with(kReplaced)) path.resize(path.size() - kReplaced.size());
    return path;
}

}  // namespace

bool install_crash_dump() {
    return install_crash_dump(own_path());
}

bool install_crash_dump(const std::string& program_path) {
    keep(prepared().program, program_path);
    if (!program_path.empty())
        keep(prepared().beside_program,
             std::filesystem::path(program_path).replace_extension(".dmp").string());
    if (const char* directory = std::getenv(kCrashDirectoryVariable))
        set_crash_directory(directory);
    if (watched_by_sanitizer()) return false;
    detail::prepare_capture();
    give_handlers_a_stack();
    std::set_terminate(on_terminate);
    struct sigaction action {};
    action.sa_sigaction = on_crash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigemptyset(&action.sa_mask);
    for (const int number : kSignals) ::sigaction(number, &action, nullptr);
    return true;
}

void set_crash_directory(const std::string& directory) {
    std::string path;
    if (!directory.empty()) {
        const std::filesystem::path program(prepared().program.data());
        const std::string name =
            program.empty() ? kNamelessDump : program.filename().replace_extension(".dmp").string();
        std::error_code failure;
        path = (std::filesystem::absolute(directory, failure) / name).string();
    }
    keep(prepared().in_directory, path);
}

}  // namespace platform
