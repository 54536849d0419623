#include "library_file.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

#include "common/library_mark.h"

namespace {

#if defined(__x86_64__)
constexpr unsigned ownMachine = EM_X86_64;
#elif defined(__aarch64__)
constexpr unsigned ownMachine = EM_AARCH64;
#else
#error "name this machine"
#endif

std::string machineName(unsigned machine)
{
    switch (machine) {
        case EM_X86_64:
            return "x86-64";
        case EM_AARCH64:
            return "64-bit ARM";
        case EM_386:
            return "32-bit x86";
        case EM_ARM:
            return "32-bit ARM";
        case EM_RISCV:
            return "RISC-V";
        default:
            return "machine number " + std::to_string(machine);
    }
}

// What follows the file's path in a sentence, and what to do about it.
struct Fault {
    std::string what;
    std::string remedy;
};

constexpr const char* copyAgain = "copy or build it again, and compare the sizes";

// Reads within the file's bounds only.
class Reader {
public:
    explicit Reader(const std::string& path)
        // Not waiting for the other end of a pipe.
        : m_file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
        if (m_file < 0)
            throw Fault{": " + std::generic_category().message(errno),
                        "check the path and the permissions of file and folders"};
        struct stat status;
        if (fstat(m_file, &status) != 0 || !S_ISREG(status.st_mode)) {
            close(m_file);
            throw Fault{" is a folder or device, not a file", "give the library's file"};
        }
        m_size = static_cast<uint64_t>(status.st_size);
    }
    ~Reader() { close(m_file); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    uint64_t size() const { return m_size; }

    bool reads(void* to, uint64_t count, uint64_t at) const
    {
        return at <= m_size && count <= m_size - at &&
               pread(m_file, to, count, static_cast<off_t>(at)) == static_cast<ssize_t>(count);
    }

private:
    int m_file;
    uint64_t m_size = 0;
};

Elf64_Ehdr readHeader(const Reader& file)
{
    if (file.size() == 0)
        throw Fault{" is empty", copyAgain};
    Elf64_Ehdr header;
    if (!file.reads(header.e_ident, EI_NIDENT, 0) || memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        throw Fault{" is no library: it does not begin as an ELF file", copyAgain};

    const char* buildForThis = "take the library that is built for this machine";
    if (header.e_ident[EI_CLASS] != ELFCLASS64)
        throw Fault{" is a 32-bit library; this program is for " + machineName(ownMachine),
                    buildForThis};
    if (!file.reads(&header, sizeof header, 0))
        throw Fault{" is cut: not even its header is whole", copyAgain};
    if (header.e_machine != ownMachine)
        throw Fault{" is for " + machineName(header.e_machine) + "; this program is for " +
                        machineName(ownMachine),
                    buildForThis};
    if (header.e_type != ET_DYN)
        throw Fault{" is an ELF file, but no shared library", "give the library's file"};
    return header;
}

// Throws if the file is shorter than its header says.
std::vector<Elf64_Phdr> readSegments(const Reader& file, const Elf64_Ehdr& header)
{
    const auto mustReach = [&](uint64_t at, uint64_t count) {
        if (at > file.size() || count > file.size() - at)
            throw Fault{" is cut: it has " + std::to_string(file.size()) + " bytes and needs " +
                            std::to_string(at + count),
                        copyAgain};
    };
    // The table of sections is the last thing in a file as linkers write it.
    mustReach(header.e_shoff, uint64_t{header.e_shnum} * header.e_shentsize);

    std::vector<Elf64_Phdr> segments(header.e_phnum);
    mustReach(header.e_phoff, segments.size() * sizeof(Elf64_Phdr));
    file.reads(segments.data(), segments.size() * sizeof(Elf64_Phdr), header.e_phoff);
    for (const Elf64_Phdr& segment : segments)
        if (segment.p_type != PT_NULL)
            mustReach(segment.p_offset, segment.p_filesz);
    return segments;
}

// The string at an address in memory, from the segment that holds it.
std::string readString(const Reader& file, const std::vector<Elf64_Phdr>& segments,
                       uint64_t address)
{
    std::string text;
    for (const Elf64_Phdr& segment : segments) {
        if (segment.p_type != PT_LOAD || address < segment.p_vaddr ||
            address - segment.p_vaddr >= segment.p_filesz)
            continue;
        uint64_t at = segment.p_offset + (address - segment.p_vaddr);
        for (char c; text.size() < 4096 && file.reads(&c, 1, at) && c != '\0'; ++at)
            text += c;
        break;
    }
    return text;
}

std::string readSoname(const Reader& file, const std::vector<Elf64_Phdr>& segments)
{
    const auto dynamic =
        std::find_if(segments.begin(), segments.end(),
                     [](const Elf64_Phdr& segment) { return segment.p_type == PT_DYNAMIC; });
    if (dynamic == segments.end())
        throw Fault{" is an ELF file, but no shared library", "give the library's file"};

    uint64_t strings = 0;
    uint64_t soname = 0;
    Elf64_Dyn entry;
    for (uint64_t at = 0; at + sizeof entry <= dynamic->p_filesz; at += sizeof entry) {
        if (!file.reads(&entry, sizeof entry, dynamic->p_offset + at) || entry.d_tag == DT_NULL)
            break;
        if (entry.d_tag == DT_STRTAB)
            strings = entry.d_un.d_ptr;
        if (entry.d_tag == DT_SONAME)
            soname = entry.d_un.d_val;
    }
    return soname == 0 ? "" : readString(file, segments, strings + soname);
}

// The mark among the notes of a segment; "" if there is none, or they are not whole.
std::string markAmong(std::string_view notes)
{
    const auto take = [&](void* to, size_t count) {
        if (count > notes.size())
            return false;
        memcpy(to, notes.data(), count);
        notes.remove_prefix(count);
        return true;
    };
    // Owner and description are filled up to whole words. The last may end with the segment.
    const auto takeText = [&](uint64_t count, std::string& text) {
        if (count > notes.size())
            return false;
        text = notes.substr(0, count);
        notes.remove_prefix(std::min<size_t>(notes.size(), (count + 3) / 4 * 4));
        return true;
    };
    const std::string owner(LIBRARY_MARK_OWNER, sizeof LIBRARY_MARK_OWNER);  // with its zero byte
    Elf64_Nhdr note;
    std::string name;
    std::string description;
    while (take(&note, sizeof note) && takeText(note.n_namesz, name) &&
           takeText(note.n_descsz, description))
        if (name == owner && note.n_type == LIBRARY_MARK_TYPE && !description.empty() &&
            description.back() == '\0')
            return description.substr(0, description.find('\0'));
    return "";
}

std::string readMark(const Reader& file, const std::vector<Elf64_Phdr>& segments)
{
    constexpr uint64_t mostNotes = 4096;  // bytes of a segment; ours is one of the first
    for (const Elf64_Phdr& segment : segments) {
        // Notes of eight-byte words are the linker's.
        if (segment.p_type != PT_NOTE || segment.p_align == 8)
            continue;
        std::string notes(std::min(segment.p_filesz, mostNotes), '\0');
        if (!file.reads(notes.data(), notes.size(), segment.p_offset))
            continue;
        std::string mark = markAmong(notes);
        if (!mark.empty())
            return mark;
    }
    return "";
}

}  // namespace

LibraryFile inspectLibrary(const std::string& path)
{
    LibraryFile library;
    library.machine = machineName(ownMachine);
    try {
        const Reader file(path);
        library.size = file.size();
        const Elf64_Ehdr header = readHeader(file);
        const std::vector<Elf64_Phdr> segments = readSegments(file, header);
        library.soname = readSoname(file, segments);
        library.mark = readMark(file, segments);
    } catch (const Fault& fault) {
        library.fault = path + fault.what;
        library.remedy = fault.remedy;
    }
    return library;
}
