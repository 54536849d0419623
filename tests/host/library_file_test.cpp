// Libraries as files: what is read of them, and what is said of those that cannot be loaded.
#include "host/library_file.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/library_mark.h"
#include "support/files.h"

namespace {

using namespace std::string_literals;

#if defined(__x86_64__)
constexpr unsigned own = EM_X86_64;
constexpr unsigned other = EM_AARCH64;
const std::string ownName = "x86-64";
const std::string otherName = "64-bit ARM";
#else
constexpr unsigned own = EM_AARCH64;
constexpr unsigned other = EM_X86_64;
const std::string ownName = "64-bit ARM";
const std::string otherName = "x86-64";
#endif

template <class Value>
std::string bytesOf(const Value& value)
{
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string note(const std::string& owner, const std::string& description, unsigned type = 1)
{
    const Elf64_Nhdr head = {static_cast<Elf64_Word>(owner.size()),
                             static_cast<Elf64_Word>(description.size()), type};
    const auto filledUp = [](const std::string& text) {
        return text + std::string((4 - text.size() % 4) % 4, '\0');
    };
    return bytesOf(head) + filledUp(owner) + filledUp(description);
}

const std::string owner = LIBRARY_MARK_OWNER + "\0"s;

// A file with a header, segments and nothing else than what these hold.
class Library {
public:
    Library()
    {
        memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = ELFCLASS64;
        header.e_machine = static_cast<Elf64_Half>(own);
        header.e_type = ET_DYN;
        header.e_phoff = sizeof header;
    }

    void add(unsigned type, const std::string& content, uint64_t align = 4)
    {
        Elf64_Phdr segment = {};
        segment.p_type = type;
        segment.p_align = align;
        segment.p_filesz = content.size();
        segment.p_offset = m_content.size();  // of the content, until it is put together
        segments.push_back(segment);
        m_content += content;
    }

    // The names that are read, with `names` at the address 0x20000, and the entries of the table.
    void addNames(const std::string& names, const std::vector<Elf64_Dyn>& entries)
    {
        add(PT_LOAD, names);
        segments.back().p_vaddr = 0x20000;
        std::string table;
        for (const Elf64_Dyn& entry : entries)
            table += bytesOf(entry);
        add(PT_DYNAMIC, table);
    }

    std::string bytes() const
    {
        Elf64_Ehdr head = header;
        head.e_phnum = static_cast<Elf64_Half>(segments.size());
        std::string all = bytesOf(head);
        const uint64_t begin = all.size() + segments.size() * sizeof(Elf64_Phdr);
        for (Elf64_Phdr segment : segments) {
            segment.p_offset += begin;
            all += bytesOf(segment);
        }
        return all + m_content;
    }

    Elf64_Ehdr header = {};
    std::vector<Elf64_Phdr> segments;

private:
    std::string m_content;
};

Elf64_Dyn entry(int64_t tag, uint64_t value)
{
    Elf64_Dyn made = {};
    made.d_tag = tag;
    made.d_un.d_val = value;
    return made;
}

const std::vector<Elf64_Dyn> named = {entry(DT_STRTAB, 0x20000), entry(DT_SONAME, 1),
                                      entry(DT_NULL, 0)};

Library usual()
{
    Library library;
    library.addNames("\0libx.so\0"s, named);
    return library;
}

class LibraryFiles : public testing::Test {
protected:
    LibraryFile look(const std::string& bytes) const
    {
        m_folder.write("a library", bytes);
        return inspectLibrary(m_folder.path("a library"));
    }

    // Behind the path; with the remedy.
    std::string fault(const std::string& bytes) const
    {
        const LibraryFile seen = look(bytes);
        if (seen.fault.empty())
            return "";
        const std::string path = m_folder.path("a library");
        EXPECT_EQ(0U, seen.fault.find(path));
        return seen.fault.substr(path.size()) + "; " + seen.remedy;
    }

    std::string soname(const std::string& names, const std::vector<Elf64_Dyn>& entries) const
    {
        Library library;
        library.addNames(names, entries);
        const LibraryFile seen = look(library.bytes());
        EXPECT_EQ("", seen.fault);
        return seen.soname;
    }

    std::string mark(const std::string& notes, uint64_t align = 4) const
    {
        Library library = usual();
        library.add(PT_NOTE, notes, align);
        const LibraryFile seen = look(library.bytes());
        EXPECT_EQ("", seen.fault);
        return seen.mark;
    }

    support::TemporaryFolder m_folder;
};

constexpr const char* copyAgain = "; copy or build it again, and compare the sizes";

TEST_F(LibraryFiles, AWholeOneIsReadAsItIs)
{
    const std::string bytes = usual().bytes();
    const LibraryFile seen = look(bytes);
    EXPECT_EQ("", seen.fault);
    EXPECT_EQ("", seen.remedy);
    EXPECT_EQ(ownName, seen.machine);
    EXPECT_EQ("libx.so", seen.soname);
    EXPECT_EQ("", seen.mark);
    EXPECT_EQ(bytes.size(), seen.size);
}

TEST_F(LibraryFiles, WhatIsNoneIsToldWithTheRemedy)
{
    EXPECT_EQ(" is empty"s + copyAgain, fault(""));
    const std::string none = " is no library: it does not begin as an ELF file"s + copyAgain;
    const std::string bytes = usual().bytes();
    EXPECT_EQ(none, fault("x"));
    EXPECT_EQ(none, fault(bytes.substr(0, EI_NIDENT - 1)));
    EXPECT_EQ(none, fault("x" + bytes.substr(1)));
    EXPECT_EQ(none, fault(bytes.substr(0, 3) + "x" + bytes.substr(4)));
    const std::string cut = " is cut: not even its header is whole"s + copyAgain;
    EXPECT_EQ(cut, fault(bytes.substr(0, EI_NIDENT)));
    EXPECT_EQ(cut, fault(bytes.substr(0, sizeof(Elf64_Ehdr) - 1)));

    const LibraryFile absent = inspectLibrary(m_folder.path("absent"));
    EXPECT_EQ(m_folder.path("absent") + ": No such file or directory", absent.fault);
    EXPECT_EQ("check the path and the permissions of file and folders", absent.remedy);
    EXPECT_EQ(0U, absent.size);
    const LibraryFile folder = inspectLibrary(m_folder.path(""));
    EXPECT_EQ(m_folder.path("") + " is a folder or device, not a file", folder.fault);
    EXPECT_EQ("give the library's file", folder.remedy);
}

TEST_F(LibraryFiles, ThoseForOtherMachinesAreToldWithTheirName)
{
    Library small = usual();
    small.header.e_ident[EI_CLASS] = ELFCLASS32;
    EXPECT_EQ(" is a 32-bit library; this program is for " + ownName +
                  "; take the library that is built for this machine",
              fault(small.bytes().substr(0, EI_NIDENT)));
    for (const auto& [machine, name] :
         std::vector<std::pair<unsigned, std::string>>{{other, otherName},
                                                       {EM_386, "32-bit x86"},
                                                       {EM_ARM, "32-bit ARM"},
                                                       {EM_RISCV, "RISC-V"},
                                                       {0x1234, "machine number 4660"}}) {
        Library foreign = usual();
        foreign.header.e_machine = static_cast<Elf64_Half>(machine);
        EXPECT_EQ(" is for " + name + "; this program is for " + ownName +
                      "; take the library that is built for this machine",
                  fault(foreign.bytes()));
    }
}

TEST_F(LibraryFiles, ProgramsAreNone)
{
    const std::string none = " is an ELF file, but no shared library; give the library's file";
    Library program = usual();
    program.header.e_type = ET_EXEC;
    EXPECT_EQ(none, fault(program.bytes()));
    Library fixed = usual();
    fixed.segments.pop_back();
    EXPECT_EQ(none, fault(fixed.bytes()));
}

TEST_F(LibraryFiles, NothingIsBehindTheEnd)
{
    const auto cut = [](size_t has, size_t needs) {
        return " is cut: it has " + std::to_string(has) + " bytes and needs " +
               std::to_string(needs) + copyAgain;
    };
    const std::string whole = usual().bytes();
    EXPECT_EQ(cut(whole.size() - 1, whole.size()), fault(whole.substr(0, whole.size() - 1)));

    Library sections = usual();
    sections.header.e_shentsize = 8;
    sections.header.e_shnum = 3;
    sections.header.e_shoff = whole.size() - 24;
    EXPECT_EQ("", fault(sections.bytes()));
    sections.header.e_shoff += 1;
    EXPECT_EQ(cut(whole.size(), whole.size() + 1), fault(sections.bytes()));
    sections.header.e_shnum = 0;
    sections.header.e_shoff = whole.size();
    EXPECT_EQ("", fault(sections.bytes()));
    sections.header.e_shoff += 1;
    EXPECT_EQ(cut(whole.size(), whole.size() + 1), fault(sections.bytes()));

    Library table = usual();
    table.header.e_phoff = whole.size() - 1;
    EXPECT_EQ(cut(whole.size(), whole.size() - 1 + 2 * sizeof(Elf64_Phdr)), fault(table.bytes()));

    // Segments that are none may be anywhere.
    Library unused = usual();
    unused.add(PT_NULL, "");
    unused.segments.back().p_filesz = 1 << 20;
    EXPECT_EQ("", fault(unused.bytes()));
    unused.segments.back().p_type = PT_LOAD;
    EXPECT_NE("", fault(unused.bytes()));
}

// ---- The name.

TEST_F(LibraryFiles, TheNameIsWhatTheTableSays)
{
    EXPECT_EQ("ibx", soname("\0libx\0"s, {entry(DT_SONAME, 2), entry(DT_STRTAB, 0x20000)}));
    EXPECT_EQ("", soname("\0libx\0"s, {entry(DT_STRTAB, 0x20000), entry(DT_NULL, 0)}));
    EXPECT_EQ("", soname("\0libx\0"s,
                         {entry(DT_STRTAB, 0x20000), entry(DT_NULL, 0), entry(DT_SONAME, 1)}));
    EXPECT_EQ("", soname("\0libx\0"s, {}));
    EXPECT_EQ("", soname("\0libx\0"s, {entry(DT_STRTAB, 0x30000), entry(DT_SONAME, 1)}));
    // The last byte is in the segment, and the next is not.
    EXPECT_EQ("x",
              soname("\0libx"s, {entry(DT_STRTAB, 0x20000), entry(DT_SONAME, 4)}).substr(0, 1));
    EXPECT_EQ("", soname("\0libx"s, {entry(DT_STRTAB, 0x20000), entry(DT_SONAME, 5)}));
    EXPECT_EQ(std::string(4095, 'x'), soname("\0"s + std::string(4095, 'x') + "\0"s, named));
    EXPECT_EQ(std::string(4096, 'x'), soname("\0"s + std::string(5000, 'x') + "\0"s, named));
}

TEST_F(LibraryFiles, AnEntryOfTheTableIsWholeOrNone)
{
    Library library;
    library.addNames("\0libx\0"s, {entry(DT_STRTAB, 0x20000), entry(DT_SONAME, 1)});
    EXPECT_EQ("libx", look(library.bytes()).soname);
    library.segments.back().p_filesz -= 1;
    EXPECT_EQ("", look(library.bytes()).soname);
}

TEST_F(LibraryFiles, TheNameIsReadFromTheSegmentThatHoldsIt)
{
    Library library;
    for (const uint64_t address : {0x20000 - 8, 0x20010})  // one ends there, one begins behind
    {
        library.add(PT_LOAD, "wrongone");
        library.segments.back().p_vaddr = address;
    }
    library.add(PT_PHDR, "wrongone");
    library.segments.back().p_vaddr = 0x20000;
    library.addNames("libx\0"s, {entry(DT_STRTAB, 0x1FFFF), entry(DT_SONAME, 1)});
    EXPECT_EQ("libx", look(library.bytes()).soname);
}

// ---- The mark.

TEST_F(LibraryFiles, TheMarkIsANoteOfOurs)
{
    EXPECT_EQ("x engine", mark(note(owner, "x engine\0"s)));
    for (const std::string& before :
         {note("GNU\0"s, "1"), note("a", "12345\0"s, 7), note("abcdefg", ""), note("", "123")})
        EXPECT_EQ("y", mark(before + note(owner, "y\0"s))) << before.size();
    EXPECT_EQ("y", mark(note(owner, "x\0"s, 2) + note(owner, "y\0"s)));
    EXPECT_EQ("y", mark(note(owner, "") + note(owner, "y\0"s)));
    EXPECT_EQ("y", mark(note(owner, "xyz") + note(owner, "y\0"s)));
    EXPECT_EQ("y", mark(note(LIBRARY_MARK_OWNER, "x\0"s) + note(owner, "y\0"s)));
    EXPECT_EQ("x", mark(note(owner, "x\0z\0"s)));
    // The last may end with the segment, but not before.
    const std::string last = note(owner, "ab\0"s);
    EXPECT_EQ("ab", mark(last.substr(0, last.size() - 1)));
    EXPECT_EQ("", mark(last.substr(0, last.size() - 2)));
    EXPECT_EQ("", mark(last.substr(0, 12 + 7)));
    EXPECT_EQ("", mark(last.substr(0, 11)));
}

TEST_F(LibraryFiles, TheMarkIsAmongTheFirstNotes)
{
    EXPECT_EQ("", mark(note(owner, "x\0"s), 8));
    // 4096 bytes of them; our note begins with 20 bytes before its text.
    const std::string before = note("a\0\0\0"s, std::string(4096 - 4 - 20 - 16, 'x'));
    EXPECT_EQ("abc", mark(before + note(owner, "abc\0"s)));
    EXPECT_EQ("", mark(before + note(owner, "abcd\0"s)));

    Library library = usual();
    library.add(PT_NOTE, note(owner, "eight\0"s), 8);
    library.add(PT_LOAD, note(owner, "no note\0"s));
    library.add(PT_NOTE, note("a\0"s, "x\0"s));
    library.add(PT_NOTE, note(owner, "first\0"s));
    library.add(PT_NOTE, note(owner, "second\0"s));
    EXPECT_EQ("first", look(library.bytes()).mark);
}

}  // namespace
