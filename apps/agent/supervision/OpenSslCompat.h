// OpenSslCompat.h: calls of the cryptographic library that changed between releases.
#pragma once

#include <openssl/conf.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

/// Keeps the library's clean-up out of `exit`, where threads that still use it would crash. Only the first call into
/// the library can say so.
inline void KeepOpenSslOutOfExit()
{
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

/// Releases the calling thread's error queue.
inline void RemoveThreadErrorState()
{
    OPENSSL_thread_stop();
}

/// The stack of compression methods: since 1.1 the library owns it, and nothing is left to free.
inline void FreeCompressionMethods() {}
