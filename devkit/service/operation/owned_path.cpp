#include "owned_path.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <climits>
#include <system_error>
#include <vector>

#include "host/output.h"

namespace {

constexpr int flagsOfFile = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
constexpr int flagsOfEntry = O_PATH | O_CLOEXEC | O_NOFOLLOW;

// As many as the system follows itself.
constexpr unsigned mostLinks = 40;

// Goes from folder to folder by descriptors, so that each is what was looked at.
class Walk {
public:
    Walk(const std::string& path, std::string sentence) : m_sentence(std::move(sentence))
    {
        if (path.front() != '/')
            enter(".", Descriptor(open(".", flagsOfEntry)));
        add(path);
    }

    Descriptor toFile()
    {
        while (!m_left.empty()) {
            const std::string name = std::move(m_left.back());
            m_left.pop_back();
            const std::string place = (m_place == "/" ? "" : m_place) + "/" + name;
            Descriptor entry(openat(m_folder.get(), name.c_str(), flagsOfEntry));
            const struct stat info = lookAt(place, entry);
            if (S_ISLNK(info.st_mode)) {
                follow(place, entry);
            } else if (!m_left.empty()) {
                enter(place, std::move(entry));
            } else {
                Descriptor file(openat(m_folder.get(), name.c_str(), flagsOfFile));
                if (!file)
                    refuse(place, std::generic_category().message(errno));
                return file;
            }
        }
        refuse(m_place, "is a folder");
    }

private:
    [[noreturn]] void refuse(const std::string& place, const std::string& reason) const
    {
        throw UsageError(m_sentence + place + ": " + reason);
    }

    struct stat lookAt(const std::string& place, const Descriptor& entry) const
    {
        struct stat info = {};
        if (!entry || fstat(entry.get(), &info) != 0)
            refuse(place, std::generic_category().message(errno));
        if (!isOwned(info))
            refuse(place, "belongs to another user");
        return info;
    }

    void enter(const std::string& place, Descriptor folder)
    {
        const struct stat info = lookAt(place, folder);
        if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (info.st_mode & S_ISVTX) == 0)
            refuse(place, "can be written by others");
        m_folder = std::move(folder);
        m_place = place;
    }

    void follow(const std::string& place, const Descriptor& link)
    {
        if (++m_links > mostLinks)
            refuse(place, "is one link too many");
        std::array<char, PATH_MAX> target;
        const ssize_t size = readlinkat(link.get(), "", target.data(), target.size());
        if (size <= 0 || static_cast<size_t>(size) == target.size())
            refuse(place, "cannot be read");
        add(std::string(target.data(), static_cast<size_t>(size)));
    }

    // Its parts come before what is left.
    void add(const std::string& path)
    {
        if (path.front() == '/')
            enter("/", Descriptor(open("/", flagsOfEntry)));
        for (size_t end = path.size(); end != std::string::npos;) {
            const size_t slash = end == 0 ? std::string::npos : path.rfind('/', end - 1);
            const size_t begin = slash == std::string::npos ? 0 : slash + 1;
            const std::string part = path.substr(begin, end - begin);
            if (!part.empty() && part != ".")
                m_left.push_back(part);
            end = slash;
        }
    }

    const std::string m_sentence;
    Descriptor m_folder;
    std::string m_place;              // where that is, for people
    std::vector<std::string> m_left;  // the next one last
    unsigned m_links = 0;
};

}  // namespace

bool isOwned(const struct stat& info)
{
    return info.st_uid == 0 || info.st_uid == geteuid();
}

Descriptor openOwned(const std::string& path, const std::string& what)
{
    Descriptor file(open(path.c_str(), flagsOfFile));
    if (file || errno == ENOENT)
        return file;
    if (errno != ELOOP)
        throw UsageError("cannot read " + what + " " + path + ": " +
                         std::generic_category().message(errno));
    return Walk(path, what + " " + path + " is a symbolic link that cannot be followed: ").toFile();
}
