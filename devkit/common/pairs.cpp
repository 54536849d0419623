#include "pairs.h"

const std::string* findValue(const Pairs& pairs, const std::string& name)
{
    for (const auto& [pairName, value] : pairs)
        if (pairName == name)
            return &value;
    return nullptr;
}
