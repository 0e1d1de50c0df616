#pragma once

namespace tavrel {

/// Installs the two crash-logging hooks: an uncaught-exception handler (`std::set_terminate`) and a
/// SIGABRT handler. Both write to standard output, lines beginning with "💥", then the call stack.
/// Call first thing in main(), before any other thread exists.
void installCrashHooks();

} // namespace tavrel
