// OpenSslThreads.h: the cryptographic library in a program with several threads.
#pragma once

namespace VelCore {

/// Makes the cryptographic library safe for use from several threads. Call it before the second thread exists.
///
/// The library locks itself since version 1.1, which the build requires, so there is nothing to install.
void OpenSSLThreadSetup();

/// Releases what the library keeps for the calling thread. Call it from the thread that ends the process.
void OpenSSLThreadShutdown();

} // namespace VelCore
