// A program that crashes on purpose after installing the crash hooks, for the crash-hook tests.
#include "app/CrashHooks.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

[[noreturn]] __attribute__((noinline)) void crash(const char* how) {
    if (std::strcmp(how, "throw") == 0)
        throw std::runtime_error("périphérique introuvable");
    if (std::strcmp(how, "throw-other") == 0)
        throw 42;
    std::abort();
}

} // namespace

int main(int argc, char** argv) {
    tavrel::installCrashHooks();
    crash(argc > 1 ? argv[1] : "abort");
}
