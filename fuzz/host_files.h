// The files that the host finds: one of the name "file", and standard input. The programs
// are linked so that open and read come here.
#ifndef CORVANE_FUZZ_HOST_FILES_H
#define CORVANE_FUZZ_HOST_FILES_H

#include <string>

extern const std::string fileContent;
extern const std::string standardInput;

// As long as it lives, open and read are the host's, else libFuzzer's.
class HostFiles {
public:
    HostFiles();
    ~HostFiles();
    HostFiles(const HostFiles&) = delete;
    HostFiles& operator=(const HostFiles&) = delete;
};

#endif
