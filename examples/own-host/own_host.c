/* A minimal host in C. README.md tells how it is built and what it prints. */
#include <dlfcn.h>
#include <err.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "params_interface.h"

/* The functions are found at run time; the module's have pointers of their own names. */
#define DECLARE(name, parameters) static int(*name) parameters;
CORVANE_PARAMS_FUNCTIONS(DECLARE)
static int (*pluginInit)(void), (*pluginRequest)(const char*, unsigned int), (*pluginFree)(void);
static int failures;

/* The plug-in opens module and engine by bare name and gets what is open with that SONAME. */
static void* openLibrary(const char* path, const char* name)
{
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL)
        errx(1, "cannot load %s", dlerror());
    if (dlopen(name, RTLD_NOW | RTLD_NOLOAD) != library)
        errx(1, "%s has not the SONAME %s", path, name);
    return library; /* open until the process ends */
}

static void find(void* library, const char* name, void* function)
{
    void* address = dlsym(library, name);
    if (address == NULL)
        errx(1, "cannot find a function: %s", dlerror());
    memcpy(function, &address, sizeof address); /* C has no cast from data to function */
}

/* Stores a parameter of the next request. The module copies; it does not change the bytes. */
static void put(char* name, char* value)
{
    if (AddHttpParams(name, (long)strlen(name), value, (long)strlen(value)) != 0)
        errx(1, "%s cannot be stored", name);
}

/* A result, which the caller frees, or null: first its length, then its bytes and one byte more. */
static char* result(char* name)
{
    long length = 0;
    if (GetRetParams(name, (long)strlen(name), NULL, &length) != 0)
        return NULL;
    char* value = calloc((size_t)length + 1, 1);
    if (value == NULL || GetRetParams(name, (long)strlen(name), value, &length) != 0)
        errx(1, "%s cannot be read", name);
    return value;
}

/* Sends a request and prints its results. Gives its "Data", as `result` does. */
static char* request(const char* name)
{
    pluginRequest(name, (unsigned int)strlen(name)); /* 0 always; the results tell */
    char *data = result("Data"), *code = result("errorCode");
    printf("%s\n  Data: %s\n  errorCode: %s\n", name, data ? data : "-", code ? code : "-");
    /* Code 0 with an empty Data is a failure too; a plug-in without a module gives neither. */
    failures += code == NULL || strcmp(code, "0") != 0 || (data != NULL && *data == '\0');
    free(code);
    return data;
}

int main(int argc, char** argv)
{
    if (argc != 4)
        errx(2, "usage: %s MODULE ENGINE PLUGIN, paths with a slash", argv[0]);
    void* module = openLibrary(argv[1], "libCorvaneParamsModule.so");
#define FIND(name, parameters) find(module, #name, &name);
    CORVANE_PARAMS_FUNCTIONS(FIND)
    openLibrary(argv[2], "libSoftModuleaven.so");
    void* plugin = openLibrary(argv[3], "libCorvane_plugin.so");
    find(plugin, "Corvane_plugin_Init", &pluginInit);
    find(plugin, "Corvane_plugin_Request", &pluginRequest);
    find(plugin, "Corvane_plugin_Free", &pluginFree);
    pluginInit(); /* 0 always; what fails is printed, and the requests fail */
    free(request("QZaVen_GetVersion"));
    put("strIn", "any text");
    free(request("QZaven_crypto_base64_encode"));
    put("strHashAlg", "4");    /* a number; RFC 4231, test case 2 */
    put("strKey", "SmVmZQ=="); /* bytes, in URL-safe Base64 */
    put("strdata", "d2hhdCBkbyB5YSB3YW50IGZvciBub3RoaW5nPw==");
    free(request("QZaven_crypto_hmac"));
    put("strCipherAlg", "2"); /* RFC 3602, case 1, but padded */
    put("strMode", "2");
    put("strCipherPadding", "1"); /* a flag */
    put("strKey", "BqkhQDa4oVtRLgPVNBIABg==");
    put("strIV", "Pa-6Qp2etDC0ItqALJ-sQQ==");
    put("strdata", "U2luZ2xlIGJsb2NrIG1zZw==");
    free(request("QZaven_crypto_encrypt"));
    char* session = request("QZaven_ke_new"); /* a handle; clients get a token for it instead */
    put("strKe", session != NULL ? session : "");
    free(request("QZaven_ke_free"));
    free(session);
    pluginFree();
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
