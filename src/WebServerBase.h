// The base of request handlers: reading and writing parameters, and text utilities.
#ifndef CORVANE_WEBSERVERBASE_H
#define CORVANE_WEBSERVERBASE_H

#include <list>
#include <map>
#include <string>
#include <vector>

class SecretText;

class __attribute__((visibility("default"))) CWebServerBase {
public:
    CWebServerBase();
    virtual ~CWebServerBase();

    // Runs the request; returns the empty text.
    virtual std::string Request() = 0;

    // Empties the request parameters; returns the empty text.
    std::string ReturnRequest();

    // Parameters, through the parameter module. Values may hold any bytes. A read of a
    // name that is absent gives the empty text, like one of an empty value. What the module
    // throws leaves the members that return something of the module's; those that return
    // nothing, and ReturnRequest, drop it.
    std::string GetFindNameStringValueFromMapParams(std::string name);
    void InsertStringValueFromMapParams(std::string name,
                                        std::string value);  // not if value is empty
    int ChangedParamsValueByInputName(std::string name, std::string value);  // the module's code
    std::string GetRetStrToParamsMap(std::string name);
    void AddRetStrToParamsMap(std::string name,
                              std::string value);  // not if name is empty
    void ClearRetParamsMap(int alsoCustom);
    int SetRetCustomStr(std::string text);  // the module's code

    // The first and the fifth of these for the handlers, without copies of the value.
    [[gnu::visibility("hidden")]] static SecretText param(const char* name);
    [[gnu::visibility("hidden")]] static void addResult(std::string name, std::string& value);

    // A code as decimal text, and as "0x" with upper-case digits (decimal if negative).
    std::string GetStrErrorForInt(int code);
    std::string GetStrErrorHexForInt(int code);

    // Character sets, through iconv. 0 or -1; the placeholders return 1 and leave `out`
    // as it is. The conversions from and to wide text print their failures.
    int multiToUnicode(const std::string& in, std::wstring& out);  // placeholder
    int multiToUTF8(const std::string& in, std::string& out);      // placeholder
    int UTF8ToMulti(const std::string& in, std::string& out);      // placeholder
    // Tells whether the text's first quarter converts (its length in characters is
    // taken as bytes) and prints two lines about lengths; the text is not delivered.
    int UnicodeToUTF8(std::wstring& in, std::string& out);
    // Converts into the storage that `out` has; size it beforehand. Its length in
    // characters is taken as the room in bytes.
    int UTF8ToUnicode(const std::string& in, std::wstring& out);
    int Utf8ToGbk(char* in, unsigned long inLen, char* out, unsigned long outLen);
    // Always 0; `out` receives what could be converted, up to the first NUL.
    int Utf8ToGbk(std::string& in, std::string& out);

    // URL-safe Base64 to standard and back, in place. Encoding also turns line feeds
    // into "*"; decoding has no inverse of that.
    void ReplaceInChar(char* buf, int len, char from, char to);
    void URLDataDecode(char* buf, int len);
    void URLDataEncode(char* buf, int len);

    // Hex digits. FromHex takes digits and any ASCII letter (values up to 35); anything
    // else, and a cut-off "%" escape, is a programming error and ends the process.
    unsigned char ToHex(unsigned char x);
    unsigned char FromHex(unsigned char c);

    // Percent-escapes (RFC 3986, section 2.1) of all but letters, digits and -_.~!*'(),
    // once, and twice for values inside JSON.
    std::string EncodeURIComponent(const std::string& s);
    std::string DecodeURIComponent(const std::string& s);
    std::string JsonUrlEncode(std::string s);
    std::string JsonUrlDecode(std::string s);

    // The pieces of `s` between separators, without empty ones. The separator is
    // looked for at every position, inside a separator just found too.
    std::vector<std::string> split(std::string s, std::string sep);
    // Appends the non-empty pieces of `s`.
    void GetWListForDefaultWString(std::wstring s, wchar_t sep, std::list<std::wstring>& out);
    // What a shell command prints, up to 10,239 bytes. Read by lines, long ones in pieces
    // of 1,023 bytes; of each what stands before its first NUL. Waits for the command.
    // Empty if it cannot be started.
    std::string runCmd(std::string cmd);
    int IS_MS_ENH_RSA_AES_PROV_XP();  // always -2: not available on this system

private:
    // Unused, as all parameters live in the parameter module; derived handlers of the
    // host's count on the object's size.
    std::map<std::string, std::string> m_params;
    std::string m_text;
    std::list<std::string> m_texts;
};

#endif
