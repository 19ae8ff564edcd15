// FipsModule.h: FIPS mode with the provider modules of OpenSSL 3.
#pragma once

#include <string>

/// How an attempt to switch FIPS mode on ended.
enum class FipsOutcome {
    On,           ///< the module is loaded, has passed its self test, and serves every request
    NotSupported, ///< there is no module; nothing was changed
    Failed,       ///< there is a module, but it cannot be loaded or fails its self test
};

/// Looks for the module in `folder`, then where the library itself looks (the folder that OPENSSL_MODULES names, the
/// library's own), and switches FIPS mode on with the first one found. Only a regular file counts as a module.
///
/// Errors: unless the outcome is `On`, the library's error queue holds the reason.
/// Source: OpenSSL's fips_module(7), provider(7).
FipsOutcome SwitchFipsModeOn(const std::string& folder);
