#include "handle_table.h"

#include <utility>

#include "engine.h"

void* HandleTable::add(std::shared_ptr<HandleObject> object)
{
    for (;;) {
        uint64_t number = 0;
        engine_.random(reinterpret_cast<unsigned char*>(&number), sizeof number);
        number >>= 1;

        const std::lock_guard<std::mutex> lock(mutex_);
        if (number != 0 && objects_.count(number) == 0) {
            objects_.emplace(number, std::move(object));
            return reinterpret_cast<void*>(number);
        }
    }
}

std::shared_ptr<HandleObject> HandleTable::lookUp(const void* handle) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = objects_.find(reinterpret_cast<uintptr_t>(handle));
    return found == objects_.end() ? nullptr : found->second;
}

bool HandleTable::erase(const void* handle)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return objects_.erase(reinterpret_cast<uintptr_t>(handle)) == 1;
}
