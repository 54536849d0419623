// A parameter module as plain as can be: two lists of pairs that are searched from the
// front, and a text. No locks; one thread.

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "outside.h"
#include "params_interface.h"

#define EXPORT __attribute__((visibility("default")))

extern "C" {
#define DECLARE(name, params) EXPORT int name params;
CORVANE_PARAMS_FUNCTIONS(DECLARE)
#undef DECLARE
}

namespace {

constexpr int NO_SUCH_PAIR = 1;
constexpr int ROOM_TOO_SMALL = 2;

using Store = std::vector<std::pair<std::string, std::string>>;

Store http;
Store ret;
std::string custom;

std::string_view view(const char* data, long len)
{
    return std::string_view(data, static_cast<size_t>(len));
}

Store::iterator find(Store& store, std::string_view name)
{
    return std::find_if(store.begin(), store.end(),
                        [name](const auto& pair) { return pair.first == name; });
}

int put(Store& store, std::string_view name, std::string_view value, bool mayBeNew)
{
    const Outside outside;
    const auto at = find(store, name);

    if (at != store.end())
        at->second = value;
    else if (mayBeNew)
        store.emplace_back(name, value);
    else
        return NO_SUCH_PAIR;
    return 0;
}

// A null buffer asks for the length alone.
int copyOut(const std::string& text, char* buffer, long* len)
{
    const auto length = static_cast<long>(text.length());

    if (buffer != nullptr) {
        if (*len < length)
            return ROOM_TOO_SMALL;
        memcpy(buffer, text.data(), text.length());
    }
    *len = length;
    return 0;
}

int get(Store& store, std::string_view name, char* value, long* value_len)
{
    const auto at = find(store, name);
    return at == store.end() ? NO_SUCH_PAIR : copyOut(at->second, value, value_len);
}

int clear(Store& store)
{
    const Outside outside;
    store.clear();
    return 0;
}

int setCustom(std::string_view text)
{
    const Outside outside;
    custom = text;
    return 0;
}

}  // namespace

int AddHttpParams(char* name, long name_len, char* value, long value_len)
{
    return put(http, view(name, name_len), view(value, value_len), true);
}

int GetHttpParams(char* name, long name_len, char* value, long* value_len)
{
    return get(http, view(name, name_len), value, value_len);
}

int ChangeHttpParams(char* name, long name_len, char* value, long value_len)
{
    return put(http, view(name, name_len), view(value, value_len), false);
}

int ClearHttpParams()
{
    return clear(http);
}

int AddRetParams(char* name, long name_len, char* value, long value_len)
{
    return put(ret, view(name, name_len), view(value, value_len), true);
}

int GetRetParams(char* name, long name_len, char* value, long* value_len)
{
    return get(ret, view(name, name_len), value, value_len);
}

int GetRetParamsSum(int* count)
{
    *count = static_cast<int>(ret.size());
    return 0;
}

int GetRetParamFromIndex(int index, char* name, long* name_len, char* value, long* value_len)
{
    if (index < 0 || static_cast<size_t>(index) >= ret.size())
        return NO_SUCH_PAIR;
    const auto& pair = ret[static_cast<size_t>(index)];
    const int code = copyOut(pair.first, name, name_len);
    return code != 0 ? code : copyOut(pair.second, value, value_len);
}

int ClearRetParams()
{
    return clear(ret);
}

int SetRetCustomParam(char* text, long text_len)
{
    return setCustom(view(text, text_len));
}

int GetRetCustomParam(char* text, long* text_len)
{
    return copyOut(custom, text, text_len);
}

int ClearRetCustomParam()
{
    return setCustom("");
}
