// A shared library as a file (ELF), looked at without loading it: a damaged one can end the
// process that loads it.
#ifndef CORVANE_HOST_LIBRARY_FILE_H
#define CORVANE_HOST_LIBRARY_FILE_H

#include <cstdint>
#include <string>

struct LibraryFile {
    std::string fault;    // why it cannot be loaded, with its path; "" if nothing is seen
    std::string remedy;   // what to do about it
    std::string machine;  // that it was built for
    std::string soname;   // "" if it has none
    uint64_t size = 0;    // bytes
};

LibraryFile inspectLibrary(const std::string& path);

#endif
