// Files that clients name, which must lie below one folder, and files that they upload.
#ifndef CORVANE_SERVICE_REQUESTS_CONFINED_FILES_H
#define CORVANE_SERVICE_REQUESTS_CONFINED_FILES_H

#include <string>
#include <string_view>

#include "common/descriptor.h"

class ConfinedFiles {
public:
    // With "" for the folder no file can be named. Throws a UsageError if there is no such
    // folder.
    explicit ConfinedFiles(const std::string& folder);

    // Opens a regular file, or a folder, for reading. Absolute paths, ".." and symbolic links
    // are refused. Throws a Refusal that names the field.
    Descriptor openFile(const std::string& name, const std::string& field) const;
    Descriptor openFolder(const std::string& name, const std::string& field) const;

    // A file in memory that holds the bytes and cannot be changed.
    static Descriptor upload(std::string_view bytes);

private:
    Descriptor open(const std::string& name, const std::string& field, bool isFolder) const;

    Descriptor m_folder;
};

#endif
