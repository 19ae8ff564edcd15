// Finding, loading and testing the FIPS provider module.
//
// The module is looked for before anything is loaded: a failed load would also stop the library from loading its
// default provider, and leave the process without any cryptography.
//
// Tested by: blackbox/test_fips.py.

#include "supervision/FipsModule.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

namespace {

std::string ModuleFile(const std::string& folder)
{
    return folder + "/fips" + OPENSSL_info(OPENSSL_INFO_DSO_EXTENSION);
}

bool HoldsModule(const std::string& folder)
{
    struct stat status = {};
    return stat(ModuleFile(folder).c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Whether the file survives being loaded: the dynamic linker crashes on one that was cut short, so a child process
// tries it first. The process has one thread at this time.
bool LoadsSafely(const std::string& file)
{
    const pid_t child = fork();
    if (child < 0)
        return false;
    if (child == 0) {
        // It dies quietly: of the signal, without a dump, whatever handlers the process has.
        std::signal(SIGBUS, SIG_DFL);
        std::signal(SIGSEGV, SIG_DFL);
        const struct rlimit noDump = {0, 0};
        setrlimit(RLIMIT_CORE, &noDump);
        dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL); // why it refuses is for the library to say
        _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) != child) {
        if (errno != EINTR)
            return false;
    }
    return WIFEXITED(status);
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

bool LoadAndTest(const std::string& folder)
{
    if (!LoadsSafely(ModuleFile(folder))) {
        ERR_raise(ERR_LIB_CRYPTO, ERR_R_INIT_FAIL);
        return false;
    }
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
    return LoadAndTest(found) ? FipsOutcome::On : FipsOutcome::Failed;
}
