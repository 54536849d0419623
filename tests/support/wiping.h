// Whether wiping works. A test program that links wiping.cpp answers OPENSSL_cleanse and
// explicit_bzero itself, for the libraries that it loads and for libcrypto as well.
#ifndef CORVANE_TESTS_WIPING_H
#define CORVANE_TESTS_WIPING_H

namespace support {

// While it lives, nothing is wiped: whoever looks for traces must find some.
class WithoutWiping {
public:
    WithoutWiping();
    WithoutWiping(const WithoutWiping&) = delete;
    WithoutWiping& operator=(const WithoutWiping&) = delete;
    ~WithoutWiping();
};

}  // namespace support

#endif
