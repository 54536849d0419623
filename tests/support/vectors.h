// Published test vectors: reading their files, asking the plug-in, and keeping count.
//
// Most come with Debian's package python3-cryptography-vectors. CORVANE_VECTORS in the
// environment names another folder with the same files. Without them the tests fail.
#ifndef CORVANE_TESTS_VECTORS_H
#define CORVANE_TESTS_VECTORS_H

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "devkit_host.h"
#include "held.h"
#include "openssl_tool.h"

namespace support {

// ---- Files

inline std::string fromHexText(const std::string& hex)
{
    std::string bytes(hex.size() / 2, '\0');
    size_t written = 0;
    if (!hex.empty() && OPENSSL_hexstr2buf_ex(reinterpret_cast<unsigned char*>(bytes.data()),
                                              bytes.size(), &written, hex.c_str(), '\0') != 1)
        ADD_FAILURE() << "not hexadecimal: " << hex;
    return bytes;
}

// One vector. Its fields' names are in upper case, their values as in the file.
struct Vector {
    int line = 0;         // where it begins
    std::string section;  // the last "[NAME]" before it
    std::map<std::string, std::string> fields;

    bool has(const std::string& name) const { return fields.count(name) != 0; }

    std::string text(const std::string& name) const
    {
        const auto at = fields.find(name);
        if (at != fields.end())
            return at->second;
        ADD_FAILURE() << "line " << line << ": no " << name;
        return "";
    }

    std::string bytes(const std::string& name) const { return fromHexText(text(name)); }
};

inline std::string trimmed(const std::string& text)
{
    const char* const blanks = " \t\r";
    const size_t begin = text.find_first_not_of(blanks);
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

inline std::string upperCase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

// `file` is a path in the package or, with "own/" before it, in tests/data/vectors.
inline std::vector<std::string> linesOf(const std::string& file)
{
    const char* given = getenv("CORVANE_VECTORS");
    const std::string package =
        given != nullptr ? given : "/usr/lib/python3/dist-packages/cryptography_vectors";
    const bool own = file.compare(0, 4, "own/") == 0;
    const std::string path =
        own ? CORVANE_SOURCE_DIR "/tests/data/vectors/" + file.substr(4) : package + "/" + file;

    std::ifstream in(path);
    if (!in)
        ADD_FAILURE() << "cannot read " << path
                      << (own ? ""
                              : "\ninstall the package python3-cryptography-vectors, or let "
                                "CORVANE_VECTORS name the folder of its files");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// How many are always run.
constexpr size_t FEW_VECTORS = 20;

// Files of the form that NIST's programs write: paragraphs of "NAME = value" lines, one
// vector each. A word alone, such as FAIL, is a field without a value; indented lines
// show how a value came about. Where programs are slow, long files give some of their vectors.
inline std::vector<Vector> readVectors(const std::string& file)
{
    std::vector<Vector> vectors;
    Vector next;
    int number = 0;
    const auto finish = [&] {
        if (!next.fields.empty())
            vectors.push_back(next);
        next.fields.clear();
    };

    for (const std::string& line : linesOf(file)) {
        ++number;
        if (trimmed(line).empty()) {
            finish();
        } else if (line[0] == '[') {
            if (line.find('=') == std::string::npos)
                next.section = line.substr(1, line.find(']') - 1);
        } else if (line[0] != '#' && line[0] != '\t') {
            if (next.fields.empty())
                next.line = number;
            const size_t equals = std::min(line.find('='), line.size());
            const std::string name = upperCase(trimmed(line.substr(0, equals)));
            const std::string value =
                equals < line.size() ? trimmed(line.substr(equals + 1)) : std::string();
            if (!next.fields.emplace(name, value).second)
                ADD_FAILURE() << file << ":" << number << ": second " << name;
        }
    }
    finish();
    if (vectors.size() <= FEW_VECTORS)
        return vectors;
    std::vector<Vector> chosen;
    for (size_t i = 0; i < vectors.size(); i += EVERY_PLACE)
        chosen.push_back(std::move(vectors[i]));
    return chosen;
}

// ---- The plug-in

struct Answer {
    std::string code;
    std::string data;  // URL-safe Base64, as is the tag
    std::string tag;

    bool gives(const std::string& bytes) const { return code == "0" && data == toUrlBase64(bytes); }

    // With nothing of a result.
    bool refuses(int expected) const
    {
        return code == std::to_string(expected) && data.empty() && tag.empty();
    }
};

constexpr int PARAMETER_MISSING = -20001;  // the plug-in's

inline Answer ask(const std::string& request, const DevkitHost::Parameters& parameters)
{
    static DevkitHost host;
    DevkitHost::Results results = host.request(request, parameters);
    return {results["errorCode"], results["Data"], results["gcmOutTag"]};
}

// ---- The count

// What became of the vectors of one file. When it goes, it prints that, and fails the
// test if fewer than `minimum` were run.
class Tally {
public:
    Tally(std::string file, size_t minimum)
        : m_file(std::move(file)),
          m_minimum(EVERY_PLACE > 1 ? std::max<size_t>(1, minimum / (EVERY_PLACE + 1)) : minimum)
    {
    }
    Tally(const Tally&) = delete;
    Tally& operator=(const Tally&) = delete;
    ~Tally()
    {
        std::string outcome = std::to_string(m_ran) + " ran";
        for (const auto& [reason, count] : m_leftOut)
            outcome += ", " + std::to_string(count) + " left out: " + reason;
        std::cout << m_file << ": " << outcome << "\n";

        std::string key = m_file;
        std::replace_if(
            key.begin(), key.end(), [](unsigned char c) { return isalnum(c) == 0; }, '_');
        testing::Test::RecordProperty(key, outcome);
        EXPECT_GE(m_ran, m_minimum) << m_file << ": too few vectors";
        EXPECT_EQ(m_wrong, 0u) << m_file;
    }

    void ran() { ++m_ran; }

    // A vector that cannot be run for a reason that `answer` must show.
    void leaveOut(const Vector& vector, const std::string& reason, const Answer& answer, int code)
    {
        ++m_leftOut[reason];
        expect(answer.refuses(code), vector, reason, answer);
    }

    // A vector that no request can carry.
    void leaveOut(const std::string& reason) { ++m_leftOut[reason]; }

    void expect(bool good, const Vector& vector, const std::string& what, const Answer& answer)
    {
        constexpr int shown = 5;
        if (good || ++m_wrong > shown)
            return;
        ADD_FAILURE() << m_file << ":" << vector.line << ": " << what << "\n  errorCode "
                      << answer.code << "\n  Data " << answer.data << "\n  gcmOutTag "
                      << answer.tag;
    }

private:
    std::string m_file;
    size_t m_minimum;
    size_t m_ran = 0;
    size_t m_wrong = 0;
    std::map<std::string, size_t> m_leftOut;
};

}  // namespace support

#endif
