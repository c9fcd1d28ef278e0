#include "platform/detail/crash_trace.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cxxabi.h>
#include <dlfcn.h>
#include <elfutils/libdwfl.h>
#include <execinfo.h>
#include <sys/wait.h>
#include <unistd.h>

namespace platform::detail {

namespace {

/// The forked child gets no longer to look up names.
constexpr unsigned kNamesLimit_s = 10;

std::string_view file_part(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

void begin_line(CrashText& out, int index, const void* address) {
    out << "#" << static_cast<uint64_t>(index) << (index < 10 ? "  " : " ");
    out.hex(reinterpret_cast<uintptr_t>(address));
    out << "  ";
}

/// A return address may stand behind the last instruction of its function; the call is before it.
uintptr_t call_address(const Frames& frames, int index) {
    return reinterpret_cast<uintptr_t>(frames.addresses[static_cast<size_t>(index)]) -
           (index == 0 ? 0 : 1);
}

void write_demangled(CrashText& out, const char* symbol) {
    int status = 0;
    char* readable = abi::__cxa_demangle(symbol, nullptr, nullptr, &status);
    out << (readable != nullptr ? readable : symbol);
    std::free(readable);
}

/// Debug information of other places than the file itself isn't looked for.
int find_no_debuginfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*,
                      GElf_Word, char**) {
    return -1;
}

void write_place(CrashText& out, Dwfl* modules, uintptr_t address) {
    Dwfl_Module* module = dwfl_addrmodule(modules, address);
    if (module == nullptr) {
        out << "in no program or library";
        return;
    }
    const char* symbol = dwfl_module_addrname(module, address);
    if (symbol != nullptr) write_demangled(out, symbol);
    if (Dwfl_Line* line = dwfl_module_getsrc(module, address)) {
        int number = 0;
        if (const char* file = dwfl_lineinfo(line, nullptr, &number, nullptr, nullptr, nullptr))
            out << " at " << file << ":" << static_cast<uint64_t>(number);
    }
    const char* name =
        dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (name != nullptr) out << " in " << file_part(name);
}

/// Runs in a forked child, which may allocate: if that hangs or crashes, only the child does.
bool write_names(int fd, const Frames& frames) {
    const Dwfl_Callbacks callbacks{.find_elf = dwfl_linux_proc_find_elf,
                                   .find_debuginfo = find_no_debuginfo,
                                   .section_address = nullptr,
                                   .debuginfo_path = nullptr};
    Dwfl* modules = dwfl_begin(&callbacks);
    if (modules == nullptr || dwfl_linux_proc_report(modules, ::getpid()) != 0 ||
        dwfl_report_end(modules, nullptr, nullptr) != 0)
        return false;
    CrashText out(fd);
    for (int i = 0; i < frames.count; ++i) {
        begin_line(out, i, frames.addresses[static_cast<size_t>(i)]);
        write_place(out, modules, call_address(frames, i));
        out << "\n";
    }
    return out.flush();
}

void write_addresses(int fd, const Frames& frames) {
    CrashText out(fd);
    out << "(the names could not be told; addr2line does it from the offsets)\n";
    for (int i = 0; i < frames.count; ++i) {
        begin_line(out, i, frames.addresses[static_cast<size_t>(i)]);
        const uintptr_t address = call_address(frames, i);
        Dl_info info{};
        if (::dladdr(reinterpret_cast<void*>(address), &info) != 0 && info.dli_fname != nullptr) {
            out << file_part(info.dli_fname) << " + ";
            out.hex(address - reinterpret_cast<uintptr_t>(info.dli_fbase));
            if (info.dli_sname != nullptr) out << " " << info.dli_sname;
        }
        out << "\n";
    }
}

}  // namespace

CrashText& CrashText::operator<<(std::string_view text) {
    for (const char sign : text) {
        if (length_ == buffer_.size()) (void)flush();
        buffer_[length_++] = sign;
    }
    return *this;
}

CrashText& CrashText::digits(uint64_t number, unsigned base) {
    char text[64];
    size_t at = sizeof text;
    do {
        text[--at] = "0123456789abcdef"[number % base];
        number /= base;
    } while (number != 0);
    return *this << std::string_view(text + at, sizeof text - at);
}

CrashText& CrashText::hex(uint64_t number) {
    *this << "0x";
    return digits(number, 16);
}

bool CrashText::flush() {
    for (size_t done = 0; done < length_ && error_ == 0;) {
        const ssize_t count = ::write(fd_, buffer_.data() + done, length_ - done);
        if (count >= 0)
            done += static_cast<size_t>(count);
        else if (errno != EINTR)
            error_ = errno;
    }
    length_ = 0;
    return error_ == 0;
}

void prepare_capture() {
    // The first call loads the library that unwinds.
    void* one = nullptr;
    (void)::backtrace(&one, 1);
}

void capture_frames(const void* crashed_at, Frames& out) {
    out.count = ::backtrace(out.addresses.data(), Frames::kMost);
    out.more = out.count == Frames::kMost;
    int first = 0;
    while (first < out.count && out.addresses[static_cast<size_t>(first)] != crashed_at) ++first;
    if (first == out.count) {
        // A jump to nowhere: the unwinder finds no way past it. The handler's own frames tell
        // nothing.
        out.addresses[0] = const_cast<void*>(crashed_at);
        out.count = 1;
        return;
    }
    for (int i = first; i < out.count; ++i)
        out.addresses[static_cast<size_t>(i - first)] = out.addresses[static_cast<size_t>(i)];
    out.count -= first;
}

void write_trace(int fd, const Frames& frames) {
    const pid_t child = ::_Fork();  // runs no handlers, which fork() would
    if (child == 0) {
        for (const int number : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGALRM})
            ::signal(number, SIG_DFL);
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::alarm(kNamesLimit_s);
        ::_exit(write_names(fd, frames) ? 0 : 1);
    }
    int status = -1;
    if (child > 0)
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) write_addresses(fd, frames);
    if (frames.more) (void)(CrashText(fd) << "(more frames are not shown)\n");
}

}  // namespace platform::detail
