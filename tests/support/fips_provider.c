/* A provider module for OpenSSL 3 that takes the name and the place of "fips" in tests. It offers no algorithm.
 *
 * What it does is chosen when it is compiled, by one of
 *   -DPROVIDER_GOOD              loads, and its self test passes
 *   -DPROVIDER_SELF_TEST_FAILS   loads, but its self test fails
 *   -DPROVIDER_INIT_FAILS        refuses to load, as real modules do when their start-up self test fails
 *
 * Source: OpenSSL's provider(7), provider-base(7).
 */
#include <openssl/core.h>
#include <openssl/core_dispatch.h>
#include <openssl/core_names.h>
#include <openssl/params.h>

static const OSSL_PARAM kParameters[] = {
    OSSL_PARAM_utf8_ptr(OSSL_PROV_PARAM_NAME, NULL, 0),
    OSSL_PARAM_int(OSSL_PROV_PARAM_STATUS, NULL),
    OSSL_PARAM_END,
};

static const OSSL_PARAM *GettableParameters(void *provider)
{
    (void)provider;
    return kParameters;
}

static int GetParameters(void *provider, OSSL_PARAM parameters[])
{
    OSSL_PARAM *wanted = OSSL_PARAM_locate(parameters, OSSL_PROV_PARAM_NAME);
    (void)provider;
    if (wanted && !OSSL_PARAM_set_utf8_ptr(wanted, "test module"))
        return 0;
    wanted = OSSL_PARAM_locate(parameters, OSSL_PROV_PARAM_STATUS);
    return !wanted || OSSL_PARAM_set_int(wanted, 1);
}

static const OSSL_ALGORITHM *QueryOperation(void *provider, int operation, int *noCache)
{
    (void)provider;
    (void)operation;
    *noCache = 0;
    return NULL;
}

static int SelfTest(void *provider)
{
    (void)provider;
#ifdef PROVIDER_SELF_TEST_FAILS
    return 0;
#else
    return 1;
#endif
}

static void Teardown(void *provider)
{
    (void)provider;
}

static const OSSL_DISPATCH kFunctions[] = {
    {OSSL_FUNC_PROVIDER_TEARDOWN, (void (*)(void))Teardown},
    {OSSL_FUNC_PROVIDER_GETTABLE_PARAMS, (void (*)(void))GettableParameters},
    {OSSL_FUNC_PROVIDER_GET_PARAMS, (void (*)(void))GetParameters},
    {OSSL_FUNC_PROVIDER_QUERY_OPERATION, (void (*)(void))QueryOperation},
    {OSSL_FUNC_PROVIDER_SELF_TEST, (void (*)(void))SelfTest},
    {0, NULL},
};

int OSSL_provider_init(const OSSL_CORE_HANDLE *core, const OSSL_DISPATCH *in, const OSSL_DISPATCH **out, void **provider)
{
    (void)in;
#ifdef PROVIDER_INIT_FAILS
    return 0;
#endif
    *out = kFunctions;
    *provider = (void *)core;
    return 1;
}
