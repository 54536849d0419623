// Whole files, and folders that last as long as a test.
#ifndef CORVANE_TESTS_FILES_H
#define CORVANE_TESTS_FILES_H

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace support {

// Empty for a file that cannot be read, as one of a process that has just ended.
inline std::string readWhole(const std::filesystem::path& path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

inline void writeWhole(const std::filesystem::path& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// While it lasts, the process opens no file beside those that are open. Throws if it cannot be so.
class NoNewFiles {
public:
    NoNewFiles()
    {
        rlimit none{};
        if (getrlimit(RLIMIT_NOFILE, &m_original) == 0) {
            none.rlim_max = m_original.rlim_max;
            if (setrlimit(RLIMIT_NOFILE, &none) == 0)
                return;
        }
        throw std::system_error(errno, std::generic_category(), "the limit of open files");
    }
    ~NoNewFiles() { setrlimit(RLIMIT_NOFILE, &m_original); }
    NoNewFiles(const NoNewFiles&) = delete;
    NoNewFiles& operator=(const NoNewFiles&) = delete;

private:
    rlimit m_original{};
};

// A folder of its own, gone at the end with all that is in it. Throws if it cannot be made.
class TemporaryFolder {
public:
    TemporaryFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "corvane-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), name);
        m_path = name;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder()
    {
        if (getpid() != m_owner)
            return;  // in a forked process that exits
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::filesystem::path& path() const { return m_path; }
    std::string path(const std::string& file) const { return (m_path / file).string(); }

    // Throws for a file that is not there.
    std::string read(const std::string& file) const
    {
        if (!std::filesystem::exists(path(file)))
            throw std::runtime_error("no file " + path(file));
        return readWhole(path(file));
    }

    // Gives the file's path.
    std::string write(const std::string& file, const std::string& bytes) const
    {
        writeWhole(path(file), bytes);
        return path(file);
    }

private:
    std::filesystem::path m_path;
    pid_t m_owner = getpid();
};

}  // namespace support

#endif
