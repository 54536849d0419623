#include "params_double.h"

#include <algorithm>
#include <cstring>

#include "engine_double.h"

#define EXPORT __attribute__((visibility("default")))

// The definitions below must agree with the contract to compile.
extern "C" {
#define DECLARE(name, params) EXPORT int name params;
CORVANE_PARAMS_FUNCTIONS(DECLARE)
#undef DECLARE
EXPORT void params_double_attach(doubles::ParamsDouble* params);
}

namespace {

using namespace doubles;

ParamsDouble* state = nullptr;

std::string copyOf(const char* data, long size)
{
    return data == nullptr || size <= 0 ? std::string()
                                        : std::string(data, static_cast<size_t>(size));
}

class ParamsCall : public Recording {
public:
    explicit ParamsCall(const char* function, const std::string& parameter = "", bool query = false)
        : Recording(state->journal, function), m_step(state->step(query, function, parameter))
    {
    }

    const Step& step() const { return m_step; }

    void recordText(const char* name, const char* lengthName, const char* data, long size)
    {
        bytes(name, data, size);
        number(lengthName, size);
    }

    // Ends the call; a step that is told to fail has no effect on the stores.
    template <class Work>
    int answer(Work work)
    {
        if (m_step.during)
            m_step.during();
        if (m_step.code == 0)
            return finish(work());
        return finish(m_step.code);
    }

    int finish(int code)
    {
        Step outcome = m_step;
        outcome.code = code;
        return Recording::finish(outcome);
    }

private:
    const Step m_step;  // a copy: `during` may change the script
};

Pairs::iterator find(Pairs& store, const std::string& name)
{
    return std::find_if(store.begin(), store.end(),
                        [&name](const auto& pair) { return pair.first == name; });
}

int add(const char* function, Pairs& store, char* name, long nameLen, char* value, long valueLen,
        bool mustExist)
{
    const std::string key = copyOf(name, nameLen);
    ParamsCall call(function, key);
    call.recordText("name", "name_len", name, nameLen);
    call.recordText("value", "value_len", value, valueLen);
    return call.answer([&] {
        const auto at = find(store, key);
        if (at != store.end())
            at->second = copyOf(value, valueLen);
        else if (mustExist)
            return NAME_UNKNOWN;
        else
            store.emplace_back(key, copyOf(value, valueLen));
        return 0;
    });
}

// One read. Writes at most the room that *valueLen tells.
int deliver(const Step& step, const std::string& stored, char* value, long* valueLen)
{
    const std::string& bytes = step.output ? *step.output : stored;
    long length = static_cast<long>(bytes.size());

    if (value != nullptr) {
        const long room = std::max(*valueLen, 0L);
        if (step.scribble)
            memset(value, 0xAA, static_cast<size_t>(room));
        memcpy(value, bytes.data(), static_cast<size_t>(std::min(length, room)));
        if (length > room && !step.reported) {
            *valueLen = length;
            return ROOM_TOO_SMALL;
        }
    }
    if (step.reported)
        length = static_cast<long>(*step.reported);
    *valueLen = length;
    return 0;
}

int read(const char* function, Pairs& store, char* name, long nameLen, char* value, long* valueLen)
{
    const std::string key = copyOf(name, nameLen);
    ParamsCall call(function, key, value == nullptr);
    call.recordText("name", "name_len", name, nameLen);
    call.output("value", value, *valueLen, 1);
    call.number("value_len", *valueLen);
    return call.answer([&] {
        const auto at = find(store, key);
        const bool scripted = call.step().output || call.step().reported;
        if (at == store.end() && !scripted)
            return NAME_UNKNOWN;
        return deliver(call.step(), at == store.end() ? std::string() : at->second, value,
                       valueLen);
    });
}

}  // namespace

void params_double_attach(ParamsDouble* params)
{
    state = params;
}

int AddHttpParams(char* name, long name_len, char* value, long value_len)
{
    if (state == nullptr)
        return DETACHED;
    return add(__func__, state->http, name, name_len, value, value_len, false);
}

int GetHttpParams(char* name, long name_len, char* value, long* value_len)
{
    if (state == nullptr)
        return DETACHED;
    return read(__func__, state->http, name, name_len, value, value_len);
}

int ChangeHttpParams(char* name, long name_len, char* value, long value_len)
{
    if (state == nullptr)
        return DETACHED;
    return add(__func__, state->http, name, name_len, value, value_len, true);
}

int ClearHttpParams()
{
    if (state == nullptr)
        return DETACHED;
    return ParamsCall(__func__).answer([] {
        state->http.clear();
        return 0;
    });
}

int AddRetParams(char* name, long name_len, char* value, long value_len)
{
    if (state == nullptr)
        return DETACHED;
    return add(__func__, state->ret, name, name_len, value, value_len, false);
}

int GetRetParams(char* name, long name_len, char* value, long* value_len)
{
    if (state == nullptr)
        return DETACHED;
    return read(__func__, state->ret, name, name_len, value, value_len);
}

int GetRetParamsSum(int* count)
{
    if (state == nullptr)
        return DETACHED;
    ParamsCall call(__func__);
    call.address("count", count);
    return call.answer([count] {
        *count = static_cast<int>(state->ret.size());
        return 0;
    });
}

int GetRetParamFromIndex(int index, char* name, long* name_len, char* value, long* value_len)
{
    if (state == nullptr)
        return DETACHED;
    ParamsCall call(__func__);
    call.number("index", index);
    call.address("name", name);
    call.address("name_len", name_len);
    call.address("value", value);
    call.address("value_len", value_len);
    return call.answer([&] {
        if (index < 0 || static_cast<size_t>(index) >= state->ret.size())
            return NAME_UNKNOWN;
        const auto& pair = state->ret[static_cast<size_t>(index)];
        const int code = deliver({}, pair.first, name, name_len);
        return code != 0 ? code : deliver({}, pair.second, value, value_len);
    });
}

int ClearRetParams()
{
    if (state == nullptr)
        return DETACHED;
    return ParamsCall(__func__).answer([] {
        state->ret.clear();
        return 0;
    });
}

int SetRetCustomParam(char* text, long text_len)
{
    if (state == nullptr)
        return DETACHED;
    ParamsCall call(__func__);
    call.recordText("text", "text_len", text, text_len);
    return call.answer([&] {
        state->custom = copyOf(text, text_len);
        return 0;
    });
}

int GetRetCustomParam(char* text, long* text_len)
{
    if (state == nullptr)
        return DETACHED;
    ParamsCall call(__func__);
    call.address("text", text);
    call.address("text_len", text_len);
    return call.answer([&] { return deliver({}, state->custom, text, text_len); });
}

int ClearRetCustomParam()
{
    if (state == nullptr)
        return DETACHED;
    return ParamsCall(__func__).answer([] {
        state->custom.clear();
        return 0;
    });
}
