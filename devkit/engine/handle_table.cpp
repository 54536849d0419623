#include "handle_table.h"

#include <utility>

#include "engine.h"

void* HandleTable::add(std::shared_ptr<HandleObject> object)
{
    for (;;) {
        uint64_t number = 0;
        m_engine.random(reinterpret_cast<unsigned char*>(&number), sizeof number);
        number >>= 1;

        const std::lock_guard<std::mutex> lock(m_mutex);
        if (number != 0 && m_objects.count(number) == 0) {
            m_objects.emplace(number, std::move(object));
            return reinterpret_cast<void*>(number);
        }
    }
}

std::shared_ptr<HandleObject> HandleTable::lookUp(const void* handle) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_objects.find(reinterpret_cast<uintptr_t>(handle));
    return found == m_objects.end() ? nullptr : found->second;
}

bool HandleTable::erase(const void* handle)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_objects.erase(reinterpret_cast<uintptr_t>(handle)) == 1;
}
