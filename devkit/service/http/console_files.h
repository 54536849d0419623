// The console's files, which are part of the program. CMake writes the table.
#ifndef CORVANE_SERVICE_HTTP_CONSOLE_FILES_H
#define CORVANE_SERVICE_HTTP_CONSOLE_FILES_H

#include <string_view>
#include <vector>

struct ConsoleFile {
    const char* path;  // "/console.js"; "/" for index.html
    const char* type;
    const char* etag;
    std::string_view bytes;
};

const std::vector<ConsoleFile>& consoleFiles();

#endif
