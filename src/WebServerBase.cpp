#include "WebServerBase.h"

#include <iconv.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "base64_kernels.h"
#include "module_CorvaneParams.h"
#include "secret_text.h"

// The assertions on malformed escapes end the process in release builds too.
#undef NDEBUG
#include <cassert>

namespace {

CorvaneParamsClass& params()
{
    return *CorvaneParamsClass::getInstance();
}

long lengthOf(const std::string& text)
{
    return static_cast<long>(text.length());
}

// Calls the module for something whose failure nobody is told: neither the module's code
// nor what it throws goes any further.
template <class Function>
void ignoreFailure(Function function)
{
    try {
        function();
    } catch (...) {
    }
}

// The two-call read of a value, straight into the text that is returned: the buffer has
// one byte more than the value and is zero-filled. The module decides how many bytes
// count, but never more than it announced. What it throws passes: half a value is none.
template <class Read>
SecretText readValue(Read read)
{
    SecretText value;
    long length = 0;
    if (read(nullptr, &length) != 0)
        return value;

    const size_t announced = length > 0 ? static_cast<size_t>(length) : 0;
    value.resize(announced + 1);
    read(value.data(), &length);

    const size_t count = length > 0 ? static_cast<size_t>(length) : 0;
    value.resize(count < announced ? count : announced);
    return value;
}

struct ClosePipe {
    void operator()(FILE* pipe) const { pclose(pipe); }
};

// What stands in a URI component for each byte: itself, or "%" and two upper-case digits. In
// every locale.
struct UriText {
    char characters[4];  // one to spare, so that they are copied at once
    unsigned char length;
};
struct UriTexts {
    UriText of[256] = {};

    constexpr UriTexts()
    {
        constexpr char digits[] = "0123456789ABCDEF";
        for (unsigned i = 0; i < 256; ++i)
            of[i] = {{'%', digits[i >> 4], digits[i & 15], '\0'}, 3};
        constexpr char kept[] =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~!*'()";
        for (size_t i = 0; kept[i] != '\0'; ++i)
            of[static_cast<unsigned char>(kept[i])] = {{kept[i], '\0', '\0', '\0'}, 1};
    }
};
constexpr UriTexts uriTexts;

// Prints why iconv stopped; errno must still hold it.
void printConversionFailure()
{
    const int reason = errno;
    printf("iconv failed - %d: %s\n", reason, strerror(reason));
}

bool openConverter(iconv_t& converter, const char* to, const char* from)
{
    converter = iconv_open(to, from);
    if (converter != reinterpret_cast<iconv_t>(-1))
        return true;
    perror("iconv open failed");
    return false;
}

int closeConverter(iconv_t converter)
{
    if (iconv_close(converter) == 0)
        return 0;
    perror("iconv close failed");
    return -1;
}

}  // namespace

CWebServerBase::CWebServerBase() = default;

CWebServerBase::~CWebServerBase() = default;

std::string CWebServerBase::ReturnRequest()
{
    ignoreFailure([] { params()._aven_ClearHttpParams(); });
    return "";
}

SecretText CWebServerBase::param(const char* name)
{
    std::string ownName = name;
    return readValue([&](char* value, long* length) {
        return params()._aven_GetHttpParams(ownName.data(), lengthOf(ownName), value, length);
    });
}

void CWebServerBase::addResult(std::string name, std::string& value)
{
    ignoreFailure([&] {
        params()._aven_AddRetParams(name.data(), lengthOf(name), value.data(), lengthOf(value));
    });
}

std::string CWebServerBase::GetFindNameStringValueFromMapParams(std::string name)
{
    return readValue([&](char* value, long* length) {
        return params()._aven_GetHttpParams(name.data(), lengthOf(name), value, length);
    });
}

void CWebServerBase::InsertStringValueFromMapParams(std::string name, std::string value)
{
    const WipedAtEnd wiped(value);
    if (value.empty())
        return;
    ignoreFailure([&] {
        params()._aven_AddHttpParams(name.data(), lengthOf(name), value.data(), lengthOf(value));
    });
}

int CWebServerBase::ChangedParamsValueByInputName(std::string name, std::string value)
{
    const WipedAtEnd wiped(value);
    return params()._aven_ChangeHttpParams(name.data(), lengthOf(name), value.data(),
                                           lengthOf(value));
}

std::string CWebServerBase::GetRetStrToParamsMap(std::string name)
{
    return readValue([&](char* value, long* length) {
        return params()._aven_GetRetParams(name.data(), lengthOf(name), value, length);
    });
}

void CWebServerBase::AddRetStrToParamsMap(std::string name, std::string value)
{
    const WipedAtEnd wiped(value);
    if (!name.empty())
        addResult(std::move(name), value);
}

void CWebServerBase::ClearRetParamsMap(int alsoCustom)
{
    ignoreFailure([] { params()._aven_ClearRetParams(); });
    if (alsoCustom != 0)
        ignoreFailure([] { params()._aven_ClearRetCustomParam(); });
}

int CWebServerBase::SetRetCustomStr(std::string text)
{
    const WipedAtEnd wiped(text);
    return params()._aven_SetRetCustomParam(text.data(), lengthOf(text));
}

std::string CWebServerBase::GetStrErrorForInt(int code)
{
    return std::to_string(code);
}

std::string CWebServerBase::GetStrErrorHexForInt(int code)
{
    if (code < 0)
        return GetStrErrorForInt(code);
    char text[16];
    snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(code));
    return text;
}

int CWebServerBase::multiToUnicode(const std::string&, std::wstring&)
{
    printf("//////////////////////////////////////////");
    return 1;
}

int CWebServerBase::multiToUTF8(const std::string&, std::string&)
{
    printf("//////////////////////////////////////////");
    return 1;
}

int CWebServerBase::UTF8ToMulti(const std::string&, std::string&)
{
    return 1;
}

int CWebServerBase::UnicodeToUTF8(std::wstring& in, std::string&)
{
    iconv_t converter;
    if (!openConverter(converter, "UTF-8", "UNICODE"))
        return -1;

    printf("Base 548 UnicodeText_len:%zu\n", in.length());
    printf("Base 549 utf8Text_len:0\n");

    char scratch[1024] = {};
    const WipedBytes wiped(scratch, sizeof scratch);
    char* from = reinterpret_cast<char*>(in.data());
    size_t fromLeft = in.length();  // characters taken as bytes
    char* to = scratch;
    size_t toLeft = sizeof scratch - 1;
    if (iconv(converter, &from, &fromLeft, &to, &toLeft) != 0) {
        printConversionFailure();
        return -1;  // the converter stays open
    }
    return closeConverter(converter);
}

int CWebServerBase::UTF8ToUnicode(const std::string& in, std::wstring& out)
{
    iconv_t converter;
    if (!openConverter(converter, "UNICODE", "UTF-8"))
        return -1;

    char* from = const_cast<char*>(in.data());  // iconv only reads it
    size_t fromLeft = in.length();
    char* to = reinterpret_cast<char*>(out.data());
    size_t toLeft = out.length();  // characters taken as bytes
    if (iconv(converter, &from, &fromLeft, &to, &toLeft) == static_cast<size_t>(-1)) {
        printConversionFailure();
        return -1;  // the converter stays open
    }
    return closeConverter(converter);
}

int CWebServerBase::Utf8ToGbk(char* in, unsigned long inLen, char* out, unsigned long outLen)
{
    // Only null is taken for a failure here; iconv itself refuses the error value.
    iconv_t converter = iconv_open("gbk", "utf8");
    if (converter == nullptr)
        return -1;

    memset(out, 0, outLen);
    if (iconv(converter, &in, &inLen, &out, &outLen) == static_cast<size_t>(-1))
        return -1;  // the converter stays open
    iconv_close(converter);
    return 0;
}

int CWebServerBase::Utf8ToGbk(std::string& in, std::string& out)
{
    const size_t length = strlen(in.c_str());
    const size_t room = length * 3 + 1;
    const std::unique_ptr<char[]> buffer(new char[room]());
    const WipedBytes wiped(buffer.get(), room);
    Utf8ToGbk(in.data(), length, buffer.get(), room);
    out.assign(buffer.get(), strnlen(buffer.get(), room));
    return 0;
}

void CWebServerBase::ReplaceInChar(char* buf, int len, char from, char to)
{
    if (buf != nullptr && len >= 1)
        base64Kernel->replace(buf, static_cast<size_t>(len), from, to);
}

void CWebServerBase::URLDataDecode(char* buf, int len)
{
    ReplaceInChar(buf, len, '-', '+');
    ReplaceInChar(buf, len, '_', '/');
}

void CWebServerBase::URLDataEncode(char* buf, int len)
{
    ReplaceInChar(buf, len, '+', '-');
    ReplaceInChar(buf, len, '/', '_');
    ReplaceInChar(buf, len, '\n', '*');  // for Base64 text with line breaks; decoding leaves "*"
}

unsigned char CWebServerBase::ToHex(unsigned char x)
{
    return static_cast<unsigned char>(x < 10 ? '0' + x : 'A' + (x - 10));
}

unsigned char CWebServerBase::FromHex(unsigned char c)
{
    if (c >= 'A' && c <= 'Z')
        return static_cast<unsigned char>(c - 'A' + 10);
    if (c >= 'a' && c <= 'z')
        return static_cast<unsigned char>(c - 'a' + 10);
    if (c >= '0' && c <= '9')
        return static_cast<unsigned char>(c - '0');
    assert(0);
    return 0;
}

std::string CWebServerBase::EncodeURIComponent(const std::string& s)
{
    size_t length = 0;
    for (const char c : s)
        length += uriTexts.of[static_cast<unsigned char>(c)].length;

    constexpr size_t spare = sizeof(UriText::characters) - 1;
    std::string escaped(length + spare, '\0');
    char* out = escaped.data();
    for (const char c : s) {
        const UriText& text = uriTexts.of[static_cast<unsigned char>(c)];
        memcpy(out, text.characters, sizeof text.characters);
        out += text.length;
    }
    escaped.resize(length);
    return escaped;
}

std::string CWebServerBase::DecodeURIComponent(const std::string& s)
{
    const size_t length = s.length();
    std::string bytes;
    bytes.reserve(length);  // so that none is left behind in memory that was outgrown
    for (size_t i = 0; i < length; ++i) {
        if (s[i] != '%') {
            bytes += s[i];
            continue;
        }
        assert(i + 2 < length);
        const unsigned high = FromHex(static_cast<unsigned char>(s[i + 1]));
        const unsigned low = FromHex(static_cast<unsigned char>(s[i + 2]));
        bytes += static_cast<char>((high & 15) * 16 + low);
        i += 2;
    }
    return bytes;
}

std::string CWebServerBase::JsonUrlEncode(std::string s)
{
    SecretText text(std::move(s));
    text = EncodeURIComponent(text);  // which lets the text before go
    return EncodeURIComponent(text);
}

std::string CWebServerBase::JsonUrlDecode(std::string s)
{
    const SecretText text(std::move(s));
    return DecodeURIComponent(SecretText(DecodeURIComponent(text)));
}

std::vector<std::string> CWebServerBase::split(std::string s, std::string sep)
{
    const WipedAtEnd wiped(s);
    std::vector<std::string_view> places;
    size_t start = 0;
    size_t i = 0;
    for (; i + sep.length() <= s.length(); ++i) {
        if (s.compare(i, sep.length(), sep) != 0)
            continue;
        if (i > start)  // a match inside the previous separator has no piece before it
            places.emplace_back(s.data() + start, i - start);
        start = i + sep.length();
    }
    if (start < s.length())
        places.emplace_back(s.data() + start, s.length() - start);

    // All at once: a vector that grows leaves short texts behind.
    return std::vector<std::string>(places.begin(), places.end());
}

void CWebServerBase::GetWListForDefaultWString(std::wstring s, wchar_t sep,
                                               std::list<std::wstring>& out)
{
    const WipedAtEnd wiped(s);
    size_t start = 0;
    while (start < s.length()) {
        size_t end = s.find(sep, start);
        if (end == std::wstring::npos)
            end = s.length();
        if (end > start)
            out.emplace_back(s, start, end - start);
        start = end + 1;
    }
}

std::string CWebServerBase::runCmd(std::string cmd)
{
    constexpr size_t limit = 10239;

    const std::unique_ptr<FILE, ClosePipe> output(popen(cmd.c_str(), "r"));
    if (output == nullptr) {
        puts("popen error!");
        return "";
    }

    std::string collected;
    char line[1024];
    while (fgets(line, sizeof line, output.get()) != nullptr) {
        const size_t room = limit - collected.length();
        collected.append(line, strnlen(line, room));
    }
    return collected;
}

int CWebServerBase::IS_MS_ENH_RSA_AES_PROV_XP()
{
    return -2;
}
