// What was built: the version of plug-in and devkit, which is the project's in CMakeLists.txt.
#ifndef CORVANE_COMMON_VERSION_H
#define CORVANE_COMMON_VERSION_H

#include <string>

std::string productVersion();  // "1.0.0"

// The commit's first twelve digits; "" if the sources came without a history.
std::string productCommit();

// "1.0.0 (0123456789ab)", or the version alone.
inline std::string versionWithCommit()
{
    const std::string commit = productCommit();
    return commit.empty() ? productVersion() : productVersion() + " (" + commit + ")";
}

#endif
