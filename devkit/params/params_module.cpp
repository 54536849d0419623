#define CORVANE_PARAMS_PROTOTYPES
#include "params_module.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/lifetime_gate.h"

namespace {

// A copy of a value's bytes, which may be a secret: wiped before the memory is given back. They are
// always in a block of their own, never in the object as a short std::string's are, so that a
// value that was moved leaves none behind.
class Value {
public:
    Value() = default;
    explicit Value(std::string_view bytes) : m_size(bytes.size())
    {
        if (m_size > MOST)
            throw std::bad_alloc();
        m_bytes.reset(new char[m_size]);
        memcpy(m_bytes.get(), bytes.data(), m_size);
    }
    Value(Value&& other) noexcept { swap(other); }
    Value& operator=(Value&& other) noexcept
    {
        swap(other);
        return *this;
    }
    ~Value()
    {
        if (m_size > 0)
            explicit_bzero(m_bytes.get(), m_size);
    }

    std::string_view view() const { return {m_bytes.get(), m_size}; }

private:
    // Absurd sizes never reach an allocator: a sanitizer's ends the process for them.
    static constexpr size_t MOST = SIZE_MAX / 4;

    void swap(Value& other) noexcept
    {
        m_bytes.swap(other.m_bytes);
        std::swap(m_size, other.m_size);
    }

    std::unique_ptr<char[]> m_bytes;
    size_t m_size = 0;
};

struct Pair {
    std::string name;
    Value value;
};
using Store = std::vector<Pair>;  // in the order of the first insertion

struct ThreadStores {
    Store http;
    Store ret;
    Value custom;
    ThreadStores* previous = nullptr;
    ThreadStores* next = nullptr;
};

// A thread's stores hang on a pthread key and not on a thread_local: one with a
// destructor would keep the library loaded after dlclose. The list has every thread's
// stores, so that unloading frees those of threads that live on.
//
// Every call enters `gate`; unloading enters it alone. At process exit other threads may still
// be calling: they are answered PARAMS_CLOSED from then on.
pthread_key_t key;
bool isOpen = false;
LifetimeGate gate;
std::mutex listMutex;
ThreadStores* list = nullptr;

// Takes the stores out of the list. The caller holds `listMutex`.
void unlink(ThreadStores* stores)
{
    if (stores->previous != nullptr)
        stores->previous->next = stores->next;
    else
        list = stores->next;
    if (stores->next != nullptr)
        stores->next->previous = stores->previous;
}

// Runs when a thread ends.
void freeThreadStores(void* stores)
{
    ThreadStores* own = static_cast<ThreadStores*>(stores);

    const std::shared_lock<std::shared_mutex> alive = gate.enter();
    if (!isOpen)
        return;  // unloading has freed them
    {
        const std::lock_guard<std::mutex> guard(listMutex);
        unlink(own);
    }
    delete own;
}

__attribute__((constructor)) void openStores()
{
    isOpen = pthread_key_create(&key, freeThreadStores) == 0;
}

__attribute__((destructor)) void closeStores()
{
    const std::unique_lock<std::shared_mutex> alone = gate.enterAlone();

    if (!isOpen)
        return;
    isOpen = false;
    pthread_key_delete(key);
    while (list != nullptr) {
        ThreadStores* first = list;
        unlink(first);
        delete first;
    }
}

// The calling thread's stores, made at its first call. Throws std::bad_alloc.
ThreadStores& threadStores()
{
    if (void* known = pthread_getspecific(key))
        return *static_cast<ThreadStores*>(known);

    ThreadStores* made = new ThreadStores;
    if (pthread_setspecific(key, made) != 0) {
        delete made;
        throw std::bad_alloc();
    }
    const std::lock_guard<std::mutex> guard(listMutex);
    made->next = list;
    if (list != nullptr)
        list->previous = made;
    list = made;
    return *made;
}

// Ends a call with a code.
struct Failure {
    int code;
};

void require(bool ok, int code)
{
    if (!ok)
        throw Failure{code};
}

// Runs an exported function's body on the calling thread's stores. Nothing is thrown
// beyond this frame.
template <class Body>
int withStores(Body body) noexcept
{
    try {
        const std::shared_lock<std::shared_mutex> alive = gate.enter();
        require(isOpen, PARAMS_CLOSED);
        body(threadStores());
        return PARAMS_OK;
    } catch (const Failure& failure) {
        return failure.code;
    } catch (...) {
        return PARAMS_NO_MEMORY;  // the standard library throws nothing else here
    }
}

std::string_view bytes(const char* data, long len)
{
    require(len >= 0, PARAMS_NEGATIVE_LENGTH);
    require(data != nullptr || len == 0, PARAMS_NULL_POINTER);
    return std::string_view(len == 0 ? "" : data, static_cast<size_t>(len));
}

Store::iterator find(Store& store, std::string_view name)
{
    return std::find_if(store.begin(), store.end(),
                        [name](const Pair& pair) { return pair.name == name; });
}

// A caller's buffer to read into: null asks for the length alone.
struct Target {
    char* buffer;
    long* len;

    Target(char* readBuffer, long* readLen) : buffer(readBuffer), len(readLen)
    {
        require(len != nullptr, PARAMS_NULL_POINTER);
        require(buffer == nullptr || *len >= 0, PARAMS_NEGATIVE_LENGTH);
    }

    bool fits(std::string_view text) const
    {
        return buffer == nullptr || text.size() <= static_cast<size_t>(*len);
    }

    void putLength(std::string_view text) const { *len = static_cast<long>(text.size()); }

    // The text must fit.
    void put(std::string_view text) const
    {
        if (buffer != nullptr && !text.empty())
            memcpy(buffer, text.data(), text.size());
        putLength(text);
    }
};

void read(std::string_view text, const Target& target)
{
    if (!target.fits(text)) {
        target.putLength(text);
        throw Failure{PARAMS_BUFFER_TOO_SMALL};
    }
    target.put(text);
}

int add(Store ThreadStores::*store, char* name, long nameLen, char* value, long valueLen)
{
    return withStores([&](ThreadStores& stores) {
        const std::string_view wanted = bytes(name, nameLen);
        Value copy(bytes(value, valueLen));
        Store& pairs = stores.*store;

        const auto at = find(pairs, wanted);
        if (at != pairs.end())
            at->value = std::move(copy);
        else
            pairs.push_back({std::string(wanted), std::move(copy)});
    });
}

// Requests leave optional parameters out, so that an unknown name is nothing exceptional:
// thrown, its code would cost more than all the rest.
int get(Store ThreadStores::*store, char* name, long nameLen, char* value, long* valueLen)
{
    bool isKnown = false;
    const int code = withStores([&](ThreadStores& stores) {
        const std::string_view wanted = bytes(name, nameLen);
        const Target target(value, valueLen);
        Store& pairs = stores.*store;

        const auto at = find(pairs, wanted);
        isKnown = at != pairs.end();
        if (isKnown)
            read(at->value.view(), target);
    });
    return code == PARAMS_OK && !isKnown ? PARAMS_UNKNOWN_NAME : code;
}

}  // namespace

int AddHttpParams(char* name, long name_len, char* value, long value_len)
{
    return add(&ThreadStores::http, name, name_len, value, value_len);
}

int GetHttpParams(char* name, long name_len, char* value, long* value_len)
{
    return get(&ThreadStores::http, name, name_len, value, value_len);
}

int ChangeHttpParams(char* name, long name_len, char* value, long value_len)
{
    return withStores([&](ThreadStores& stores) {
        const std::string_view wanted = bytes(name, name_len);
        Value copy(bytes(value, value_len));

        const auto at = find(stores.http, wanted);
        require(at != stores.http.end(), PARAMS_UNKNOWN_NAME);
        at->value = std::move(copy);
    });
}

int ClearHttpParams(void)
{
    return withStores([](ThreadStores& stores) { Store().swap(stores.http); });
}

int AddRetParams(char* name, long name_len, char* value, long value_len)
{
    return add(&ThreadStores::ret, name, name_len, value, value_len);
}

int GetRetParams(char* name, long name_len, char* value, long* value_len)
{
    return get(&ThreadStores::ret, name, name_len, value, value_len);
}

int GetRetParamsSum(int* count)
{
    return withStores([&](ThreadStores& stores) {
        require(count != nullptr, PARAMS_NULL_POINTER);
        *count = static_cast<int>(stores.ret.size());
    });
}

int GetRetParamFromIndex(int index, char* name, long* name_len, char* value, long* value_len)
{
    return withStores([&](ThreadStores& stores) {
        const Target nameTarget(name, name_len);
        const Target valueTarget(value, value_len);
        require(index >= 0 && static_cast<size_t>(index) < stores.ret.size(), PARAMS_BAD_INDEX);

        const Pair& pair = stores.ret[static_cast<size_t>(index)];
        if (!nameTarget.fits(pair.name) || !valueTarget.fits(pair.value.view())) {
            nameTarget.putLength(pair.name);
            valueTarget.putLength(pair.value.view());
            throw Failure{PARAMS_BUFFER_TOO_SMALL};
        }
        nameTarget.put(pair.name);
        valueTarget.put(pair.value.view());
    });
}

int ClearRetParams(void)
{
    return withStores([](ThreadStores& stores) { Store().swap(stores.ret); });
}

int SetRetCustomParam(char* text, long text_len)
{
    return withStores([&](ThreadStores& stores) { stores.custom = Value(bytes(text, text_len)); });
}

int GetRetCustomParam(char* text, long* text_len)
{
    return withStores(
        [&](ThreadStores& stores) { read(stores.custom.view(), Target(text, text_len)); });
}

int ClearRetCustomParam(void)
{
    return withStores([](ThreadStores& stores) { stores.custom = Value(); });
}
