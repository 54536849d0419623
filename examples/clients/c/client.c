/* Calls corvane-host over HTTP. README.md tells how it is started and what it prints. */
#define _GNU_SOURCE
#include <curl/curl.h>
#include <jansson.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>

/* By name; other engines' ciphers have numbers of their own, as "4". */
static const char AES_256[] = "aes-256", GCM[] = "gcm", SHA_256[] = "sha-256";
static const char message[] = "meet me at the usual place";

/* Ends the program. */
#define FAIL(...) (fprintf(stderr, "error: " __VA_ARGS__), fputc('\n', stderr), exit(1))

static CURL* http;
static const char* url;
static json_t* answer; /* the host's last one */

/* The line of an HTTP header, which the caller frees. The token is in no argument of a program
   and no environment, where others could read it. */
static struct curl_slist* authorization(void)
{
    const char *file = getenv("CORVANE_TOKEN_FILE"), *home = getenv("HOME");
    char path[4096], token[520] = "", line[600];
    snprintf(path, sizeof path, "%s/.local/state/corvane-host/token", home ? home : "");
    FILE* in = fopen(file ? file : path, "r");
    if (in == NULL || fgets(token, sizeof token, in) == NULL)
        FAIL("no token in %s", file ? file : path);
    fclose(in);
    token[strcspn(token, "\n")] = '\0';
    snprintf(line, sizeof line, "Authorization: Bearer %s", token);
    struct curl_slist* headers = curl_slist_append(NULL, line);
    explicit_bzero(token, sizeof token);
    explicit_bzero(line, sizeof line);
    return curl_slist_append(headers, "Content-Type: application/json");
}

/* Sends a request and frees its parameters. `answer` is what the host said, also with a status of
   4xx or 5xx. Nothing of it is logged: it has the token, and keys. */
static void sendRequest(const char* request, json_t* parameters)
{
    char target[1024], *text = NULL, *body = json_dumps(parameters, JSON_COMPACT);
    size_t length = 0;
    FILE* out = open_memstream(&text, &length);
    struct curl_slist* headers = authorization();
    snprintf(target, sizeof target, "%s/v1/requests/%s", url, request);
    curl_easy_setopt(http, CURLOPT_URL, target);
    curl_easy_setopt(http, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(http, CURLOPT_POSTFIELDS, body);
    curl_easy_setopt(http, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(http, CURLOPT_WRITEDATA, out); /* curl writes by fwrite */
    CURLcode code = curl_easy_perform(http);
    if (code != CURLE_OK)
        FAIL("%s", curl_easy_strerror(code));
    fclose(out);
    json_decref(answer);
    answer = json_loadb(text, length, 0, NULL);
    if (answer == NULL)
        FAIL("the answer is not JSON");
    explicit_bzero(text, length);
    explicit_bzero(body, strlen(body));
    free(text);
    free(body);
    json_decref(parameters);
    curl_slist_free_all(headers);
}

/* A part of the answer's error; null if it has none. */
static const char* errorPart(const char* name)
{
    return json_string_value(json_object_get(json_object_get(answer, "error"), name));
}

/* The host, the plug-in or the engine did not do it. Programs go by code and reason. */
static void printRefusal(FILE* out, const char* title)
{
    const char *reason = errorPart("reason"), *field = errorPart("field");
    fprintf(out, "%s: refused by %s: %s%s%s%s%s", title, errorPart("source"), errorPart("code"),
            reason ? ", " : "", reason ? reason : "", field ? ", " : "", field ? field : "");
}

/* A result of the answer; ends the program if it has none. The text is for people. */
static const char* result(const char* name)
{
    if (!json_is_null(json_object_get(answer, "error"))) {
        printRefusal(stderr, "error");
        fprintf(stderr, ": %s\n", errorPart("text"));
        exit(1);
    }
    const char* value =
        json_string_value(json_object_get(json_object_get(answer, "results"), name));
    if (value == NULL)
        FAIL("the answer has no result %s", name);
    return value;
}

/* The bytes of URL-safe Base64, at most `room`, in `to`. Returns how many. */
static size_t fromBase64(const char* text, unsigned char* to, size_t room)
{
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    size_t length = 0;
    unsigned long bits = 0;
    int count = 0;
    for (; *text != '\0' && *text != '='; ++text) {
        const char* digit = strchr(digits, *text);
        if (digit == NULL)
            FAIL("a result is not Base64");
        bits = bits << 6 | (unsigned long)(digit - digits);
        count += 6;
        if (count >= 8) {
            if (length == room)
                FAIL("a result is longer than %zu bytes", room);
            count -= 8;
            to[length++] = (unsigned char)(bits >> count);
        }
    }
    return length;
}

static void checkHmac(void)
{
    sendRequest("QZaven_crypto_hmac",
                json_pack("{s:s, s:{s:s}, s:{s:s}}", "strHashAlg", SHA_256, "strKey", "text",
                          "Jefe", "strdata", "text", "what do ya want for nothing?"));
    if (strcmp(result("Data"), "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=") != 0)
        FAIL("the HMAC is another one");
    puts("HMAC-SHA-256: as in RFC 4231, test case 2");
}

/* The parameters of both directions. The caller frees them. */
static json_t* newCipher(void)
{
    unsigned char random[12];
    char iv[2 * sizeof random + 1];
    if (getrandom(random, sizeof random, 0) != (ssize_t)sizeof random)
        FAIL("there are no random numbers");
    for (size_t i = 0; i < sizeof random; ++i)
        snprintf(iv + 2 * i, 3, "%02x", random[i]);
    sendRequest("QZaven_crypto_gen_symmkey", json_pack("{s:s}", "strCipherAlg", AES_256));
    /* Bytes come as URL-safe Base64, which is taken as it is where bytes are due. The IV is another
       one for each message; the additional data is not secret, but protected by the tag. */
    return json_pack("{s:s, s:s, s:s, s:{s:s}, s:{s:s}}", "strCipherAlg", AES_256, "strMode", GCM,
                     "strKey", result("Data"), "strIV", "hex", iv, "straad", "text", "message 1");
}

/* Returns the parameters of the decryption, which the caller frees. */
static json_t* encryptAndDecrypt(void)
{
    unsigned char bytes[256];
    json_t *cipher = newCipher(), *sealing = json_copy(cipher);
    json_object_set_new(sealing, "strdata", json_pack("{s:s}", "text", message));
    sendRequest("QZaven_crypto_encrypt", sealing);
    json_object_set_new(cipher, "strdata", json_string(result("Data")));
    json_object_set_new(cipher, "strtag", json_string(result("gcmOutTag")));
    size_t encrypted = fromBase64(result("Data"), bytes, sizeof bytes);
    printf("AES-256-GCM: %zu bytes encrypted, %zu bytes of tag\n", encrypted,
           fromBase64(result("gcmOutTag"), bytes, sizeof bytes));

    sendRequest("QZaven_crypto_decrypt", json_copy(cipher));
    size_t decrypted = fromBase64(result("Data"), bytes, sizeof bytes);
    if (decrypted != strlen(message) || memcmp(bytes, message, decrypted) != 0)
        FAIL("the decrypted message is another one");
    printf("AES-256-GCM: %zu bytes decrypted, the same\n", decrypted);
    return cipher;
}

static void showRefusal(const char* title)
{
    if (errorPart("code") == NULL)
        FAIL("%s: was not refused", title);
    printRefusal(stdout, title);
    putchar('\n');
}

int main(void)
{
    url = getenv("CORVANE_URL") ? getenv("CORVANE_URL") : "http://127.0.0.1:8720";
    curl_global_init(CURL_GLOBAL_DEFAULT);
    http = curl_easy_init();
    if (http == NULL)
        FAIL("curl does not start");

    checkHmac();
    json_t* opening = encryptAndDecrypt();
    json_object_set_new(opening, "strtag",
                        json_pack("{s:s}", "hex", "00000000000000000000000000000000"));
    sendRequest("QZaven_crypto_decrypt", opening);
    showRefusal("a wrong tag");
    sendRequest("QZaven_crypto_hmac", json_pack("{s:s, s:{s:s}, s:s}", "strHashAlg", SHA_256,
                                                "strKey", "text", "Jefe", "strdata", "two words"));
    showRefusal("text for bytes");

    json_decref(answer);
    curl_easy_cleanup(http);
    curl_global_cleanup();
    return EXIT_SUCCESS;
}
