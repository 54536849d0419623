// What the host holds by handle: key pairs, certificates, key-exchange sessions.
//
// A handle is a random number, not an address. A forged, freed or foreign one, or one
// of another kind of object, is therefore never dereferenced, only not found. Objects
// stay alive while a call uses them, even if another thread frees the handle meanwhile.
#ifndef CORVANE_ENGINE_HANDLE_TABLE_H
#define CORVANE_ENGINE_HANDLE_TABLE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

class Engine;

struct HandleObject {
    HandleObject() = default;
    HandleObject(const HandleObject&) = delete;
    HandleObject& operator=(const HandleObject&) = delete;
    virtual ~HandleObject() = default;
};

class HandleTable {
public:
    explicit HandleTable(const Engine& engine) : m_engine(engine) {}

    // Handles are below 2^63, so that their decimal text has no sign.
    void* add(std::shared_ptr<HandleObject> object);

    // Null if there is no such handle or if it stands for another kind of object.
    template <class Object>
    std::shared_ptr<Object> find(const void* handle) const
    {
        return std::dynamic_pointer_cast<Object>(lookUp(handle));
    }

    // Returns what the handle stood for, as find does. A handle of another kind stays.
    template <class Object>
    std::shared_ptr<Object> remove(const void* handle)
    {
        std::shared_ptr<Object> object = find<Object>(handle);
        return object != nullptr && erase(handle) ? object : nullptr;
    }

private:
    std::shared_ptr<HandleObject> lookUp(const void* handle) const;
    bool erase(const void* handle);  // false if another thread came first

    const Engine& m_engine;
    mutable std::mutex m_mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<HandleObject>> m_objects;
};

#endif
