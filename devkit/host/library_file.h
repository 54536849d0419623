// A shared library as a file (ELF), looked at without loading it. The loader crashes on a file that
// is cut, or takes it if only debugging information is missing, and says of a library for another
// machine that there is no such file.
#ifndef CORVANE_HOST_LIBRARY_FILE_H
#define CORVANE_HOST_LIBRARY_FILE_H

#include <cstdint>
#include <string>

struct LibraryFile {
    std::string fault;    // why it cannot be loaded, with its path; "" if nothing is seen
    std::string remedy;   // what to do about it
    std::string machine;  // that it was built for
    std::string soname;   // "" if it has none
    std::string mark;     // what a note of ours says it is (see common/library_mark.h), or ""
    uint64_t size = 0;    // bytes
};

LibraryFile inspectLibrary(const std::string& path);

#endif
