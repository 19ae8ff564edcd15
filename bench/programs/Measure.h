// Measure.h: what every program of this folder that makes one sample a run needs.
#pragma once

#include <functional>
#include <string>

namespace VelBench {

/// Ends the program with a message.
[[noreturn]] void Die(const std::string& text);

/// Seconds of processor time that the process has used. On a memory file system nothing waits, so this is what the work
/// takes on a machine that does nothing else, also when it does.
double ProcessorSeconds();

/// Runs the work once and prints "SECONDS KIBIBYTES": its processor time, and the peak of the process's memory.
void Measure(const std::function<void()>& work);

} // namespace VelBench
