// Finding, loading and testing the FIPS provider module.
//
// The module is looked for before anything is loaded: a failed load would also stop the library from loading its
// default provider, and leave the process without any cryptography.
//
// Tested by: blackbox/test_fips.py.

#include "supervision/FipsModule.h"

#include <cstdlib>

#include <sys/stat.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

namespace {

bool HoldsModule(const std::string& folder)
{
    const std::string file = folder + "/fips" + OPENSSL_info(OPENSSL_INFO_DSO_EXTENSION);
    struct stat status
    {
    };
    return stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// The folder that holds the module; empty when there is none.
std::string FindModule(const std::string& folder)
{
    const char* const named = std::getenv("OPENSSL_MODULES");
    const char* const own = OPENSSL_info(OPENSSL_INFO_MODULES_DIR);
    for (const std::string& candidate : {folder, std::string(named ? named : ""), std::string(own ? own : "")}) {
        if (!candidate.empty() && HoldsModule(candidate))
            return candidate;
    }
    return "";
}

bool LoadAndTest()
{
    OSSL_PROVIDER* fips = OSSL_PROVIDER_load(nullptr, "fips");
    if (!fips)
        return false;
    if (OSSL_PROVIDER_self_test(fips) != 1) {
        ERR_raise(ERR_LIB_CRYPTO, ERR_R_INIT_FAIL);
        return false;
    }
    // The module holds algorithms only; reading and writing keys takes the base provider.
    return OSSL_PROVIDER_load(nullptr, "base") != nullptr && EVP_default_properties_enable_fips(nullptr, 1) == 1;
}

} // namespace

FipsOutcome SwitchFipsModeOn(const std::string& folder)
{
    ERR_clear_error();
    const std::string found = FindModule(folder);
    if (found.empty()) {
        ERR_raise(ERR_LIB_CRYPTO, ERR_R_UNSUPPORTED);
        return FipsOutcome::NotSupported;
    }
    OSSL_PROVIDER_set_default_search_path(nullptr, found.c_str());
    return LoadAndTest() ? FipsOutcome::On : FipsOutcome::Failed;
}
