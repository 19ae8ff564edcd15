// Assert.h: checks that stay on in every build.
#pragma once

namespace SLB3 {

/// Writes the broken condition and its place to standard error and aborts.
///
/// A failed check means that the binding itself is broken, not that a script did something wrong: a script's
/// mistakes are Lua errors.
[[noreturn]] void AssertFailed(const char* condition, const char* file, int line);

} // namespace SLB3

#define SLB3_ASSERT(condition) ((condition) ? (void)0 : ::SLB3::AssertFailed(#condition, __FILE__, __LINE__))
