// Loaded before all others, it turns the overwriting of secrets off, so that a scan has something
// to find.
#include <cstddef>

extern "C" {
void explicit_bzero(void* /*bytes*/, size_t /*size*/) {}
void __explicit_bzero_chk(void* /*bytes*/, size_t /*size*/, size_t /*room*/) {}
void OPENSSL_cleanse(void* /*bytes*/, size_t /*size*/) {}
}
