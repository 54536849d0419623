// The mark of a library in its file: an ELF note, which can be read without loading the library.
// The mark tells whoever reads a crypto engine's file whether it is the development engine, whose
// numbers have known names. C++ and assembler.
#ifndef CORVANE_COMMON_LIBRARY_MARK_H
#define CORVANE_COMMON_LIBRARY_MARK_H

#define LIBRARY_MARK_OWNER "Corvane"
#define LIBRARY_MARK_TYPE 1
#define LIBRARY_MARK_DEVELOPMENT_ENGINE "development engine"

#define LIBRARY_MARK_TEXT(value) #value
#define LIBRARY_MARK_NUMBER(value) LIBRARY_MARK_TEXT(value)

// Puts the note into the library that the file belongs to. For one file, outside of functions. Its
// words: the lengths in bytes of owner and description, the type; then both, filled up to whole
// words.
// clang-format off
#define LIBRARY_MARK(description)                             \
    __asm__(                                                  \
        ".pushsection .note.corvane, \"a\", %note\n"          \
        ".balign 4\n"                                         \
        ".4byte 1f - 0f\n"                                    \
        ".4byte 3f - 2f\n"                                    \
        ".4byte " LIBRARY_MARK_NUMBER(LIBRARY_MARK_TYPE) "\n" \
        "0: .asciz \"" LIBRARY_MARK_OWNER "\"\n"              \
        "1: .balign 4\n"                                      \
        "2: .asciz \"" description "\"\n"                     \
        "3: .balign 4\n"                                      \
        ".popsection\n")
// clang-format on

#endif
