// Threads and the cryptographic library.
//
// Tested by: blackbox/test_exit_status.py (thousands of ends while the library is loaded).

#include <VelCore/OpenSslThreads.h>

#include <openssl/crypto.h>

static_assert(OPENSSL_VERSION_NUMBER >= 0x10100000L, "older releases need locking callbacks");

namespace VelCore {

void OpenSSLThreadSetup()
{
    // Locking callbacks were the library's way before 1.1.
}

void OpenSSLThreadShutdown()
{
    OPENSSL_thread_stop();
}

} // namespace VelCore
