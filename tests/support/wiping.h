// Whether wiping works, and what becomes of freed memory. A test program that links wiping.cpp
// answers OPENSSL_cleanse, explicit_bzero and free itself, for the libraries that it loads and for
// libcrypto as well.
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

// While it lives, freed memory stays as it is and is not given out again, so that traces in it are
// not overwritten by chance. One at a time, without other threads.
class KeptBlocks {
public:
    KeptBlocks();
    KeptBlocks(const KeptBlocks&) = delete;
    KeptBlocks& operator=(const KeptBlocks&) = delete;
    ~KeptBlocks();
};

}  // namespace support

#endif
