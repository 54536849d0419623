// The alphabets, and the tables of the 16-byte look-ups that are made from them.
#ifndef CORVANE_BASE64_KERNEL_TABLES_H
#define CORVANE_BASE64_KERNEL_TABLES_H

// A character's place is its sextet.
constexpr char base64Chars[65] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char base64UrlChars[65] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// Tells whether a character belongs to an alphabet by two 16-entry look-ups, of its low
// and of its high half: it does if the two have no bit in common. Each high half that
// letters of the alphabet have, 2 to 7, has a bit of its own; the low half's entry holds
// the bits of those high halves with which it makes no letter.
template <bool Url>
struct alignas(16) Base64Classes {
    unsigned char low[16] = {};
    unsigned char high[16] = {};

    constexpr Base64Classes()
    {
        constexpr unsigned char none = 0x80;  // of a high half without letters
        for (int half = 0; half < 16; ++half) {
            low[half] = 0xFF;
            high[half] =
                half >= 2 && half <= 7 ? static_cast<unsigned char>(1 << (half - 2)) : none;
        }
        for (int i = 0; i < 64; ++i) {
            accept(base64Chars[i]);
            if (Url)
                accept(base64UrlChars[i]);
        }
    }

private:
    constexpr void accept(char c)
    {
        low[c & 15] = static_cast<unsigned char>(low[c & 15] & ~high[c >> 4]);
    }
};

// What to add to a character to get its sextet, by its high half. "/" shares its high
// half with "+" and has entry 1, which no letter uses, for itself.
struct alignas(16) Base64Offsets {
    signed char of[16] = {};

    constexpr Base64Offsets()
    {
        for (int i = 0; i < 63; ++i)
            of[base64Chars[i] >> 4] = static_cast<signed char>(i - base64Chars[i]);
        of[1] = static_cast<signed char>(63 - '/');
    }
};

// What to add to a sextet to get its character. The entry is 0 for a to z, 1 to 10 for
// the digits, 11 and 12 for the last two, 13 for A to Z.
template <bool Url>
struct alignas(16) Base64CharOffsets {
    signed char of[16] = {};

    constexpr Base64CharOffsets()
    {
        const char* chars = Url ? base64UrlChars : base64Chars;
        of[0] = static_cast<signed char>(chars[26] - 26);
        for (int i = 52; i < 64; ++i)
            of[i - 51] = static_cast<signed char>(chars[i] - i);
        of[13] = static_cast<signed char>(chars[0]);
    }
};

template <bool Url>
constexpr Base64Classes<Url> base64Classes;
constexpr Base64Offsets base64Offsets;
template <bool Url>
constexpr Base64CharOffsets<Url> base64CharOffsets;

#endif
