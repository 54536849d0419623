// A host's own parameter module, the smallest that keeps the contract in params_interface.h.
// Its stores belong to the process and nothing is locked, so that the host sends one request at
// a time; a module for several threads keeps stores for each. Values may be keys and passwords:
// their memory is freed when a store is emptied, but not wiped.
#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#define CORVANE_PARAMS_PROTOTYPES  // a wrong signature below does not compile
#include "params_interface.h"

namespace {

// This module's own codes; 0 is success by the contract. A failed call changes no store.
enum Code { OK = 0, BAD_ARGUMENT = 1, NOT_FOUND = 2, TOO_SMALL = 3, NO_MEMORY = 4 };

// In the order of adding, by which GetRetParamFromIndex counts. Texts may hold zero bytes.
using Store = std::vector<std::pair<std::string, std::string>>;

Store http;  // parameters of the request
Store ret;   // its results
std::string custom;

// False for a negative length, and for null with another length than 0.
bool view(const char* bytes, long length, std::string_view& text)
{
    if (length < 0 || (bytes == nullptr && length > 0))
        return false;
    text = length == 0 ? "" : std::string_view(bytes, static_cast<std::size_t>(length));
    return true;
}

Store::iterator find(Store& store, std::string_view name)
{
    return std::find_if(store.begin(), store.end(),
                        [name](const auto& pair) { return pair.first == name; });
}

// A name that is there gets the new value. No exception leaves the module: a host may be in C.
int add(Store& store, const char* name, long nameLength, const char* value, long valueLength)
try {
    std::string_view newName, newValue;
    if (!view(name, nameLength, newName) || !view(value, valueLength, newValue))
        return BAD_ARGUMENT;
    const auto known = find(store, newName);
    if (known != store.end())
        known->second = newValue;
    else
        store.emplace_back(newName, newValue);
    return OK;
} catch (...) {
    return NO_MEMORY;  // the standard library throws nothing else here
}

// Both calls of a read: without a buffer it tells the length; with one, *length is the room in
// the buffer on entry.
int read(const std::string& text, char* buffer, long* length)
{
    if (length == nullptr)
        return BAD_ARGUMENT;
    const long room = *length;
    *length = static_cast<long>(text.size());
    if (buffer == nullptr)
        return OK;
    if (room < *length)
        return TOO_SMALL;
    std::copy(text.begin(), text.end(), buffer);
    return OK;
}

int get(Store& store, const char* name, long nameLength, char* value, long* valueLength)
{
    std::string_view wanted;
    if (!view(name, nameLength, wanted))
        return BAD_ARGUMENT;
    const auto known = find(store, wanted);
    return known != store.end() ? read(known->second, value, valueLength) : NOT_FOUND;
}

}  // namespace

int AddHttpParams(char* name, long name_len, char* value, long value_len)
{
    return add(http, name, name_len, value, value_len);
}
int GetHttpParams(char* name, long name_len, char* value, long* value_len)
{
    return get(http, name, name_len, value, value_len);
}
int ChangeHttpParams(char* name, long name_len, char* value, long value_len)
{
    long length = 0;
    const int code = get(http, name, name_len, nullptr, &length);
    return code == OK ? add(http, name, name_len, value, value_len) : code;
}
int ClearHttpParams(void)
{
    http.clear();
    return OK;
}
int AddRetParams(char* name, long name_len, char* value, long value_len)
{
    return add(ret, name, name_len, value, value_len);
}
int GetRetParams(char* name, long name_len, char* value, long* value_len)
{
    return get(ret, name, name_len, value, value_len);
}
int GetRetParamsSum(int* count)
{
    if (count == nullptr)
        return BAD_ARGUMENT;
    *count = static_cast<int>(ret.size());
    return OK;
}
int GetRetParamFromIndex(int index, char* name, long* name_len, char* value, long* value_len)
{
    if (index < 0 || static_cast<std::size_t>(index) >= ret.size())
        return NOT_FOUND;
    const auto& [known, text] = ret[static_cast<std::size_t>(index)];
    const int code = read(known, name, name_len);
    return code == OK ? read(text, value, value_len) : code;
}
int ClearRetParams(void)
{
    ret.clear();
    return OK;
}
int SetRetCustomParam(char* text, long text_len)
try {
    std::string_view given;
    if (!view(text, text_len, given))
        return BAD_ARGUMENT;
    custom = given;
    return OK;
} catch (...) {
    return NO_MEMORY;
}
int GetRetCustomParam(char* text, long* text_len)
{
    return read(custom, text, text_len);
}
int ClearRetCustomParam(void)
{
    custom.clear();
    return OK;
}
