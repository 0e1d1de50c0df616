#include "CrashHooks.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <execinfo.h>
#include <memory>
#include <string>
#include <unistd.h>

namespace tavrel {

namespace {

constexpr int kMaxFrames = 128;

// Only async-signal-safe calls in here: write() and backtrace_symbols_fd(), no allocation, no stdio.
void onAbortSignal(int) {
    static constexpr char kLine[] = "💥 SIGABRT reçu\n";
    ssize_t ignored = ::write(STDOUT_FILENO, kLine, sizeof kLine - 1);
    (void)ignored;
    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    ::backtrace_symbols_fd(frames, count, STDOUT_FILENO);
    // Returning leaves the disposition alone: abort() goes on and ends the process.
}

std::string demangled(const char* name) {
    if (name == nullptr)
        return "unknown";
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> readable(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                               &std::free);
    return status == 0 && readable ? std::string(readable.get()) : std::string(name);
}

[[noreturn]] void onTerminate() {
    std::string typeName = "unknown";
    std::string reason;
    if (const std::type_info* type = abi::__cxa_current_exception_type())
        typeName = demangled(type->name());
    if (std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const std::exception& error) {
            reason = error.what();
        } catch (...) {
        }
    }
    std::string text = "💥 EXCEPTION: " + typeName + ": " + reason + "\n";
    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    if (char** symbols = ::backtrace_symbols(frames, count)) {
        for (int i = 0; i < count; ++i)
            text += std::string(symbols[i]) + "\n";
        std::free(symbols);
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    std::abort();
}

} // namespace

void installCrashHooks() {
    // The first backtrace() loads libgcc's unwinder, which allocates: do it now rather than inside the
    // signal handler.
    void* frame[1];
    ::backtrace(frame, 1);
    std::set_terminate(&onTerminate);
    std::signal(SIGABRT, &onAbortSignal);
}

} // namespace tavrel
