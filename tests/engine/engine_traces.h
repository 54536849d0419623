// What the tests share that look for what the engine leaves of secrets in memory.
#ifndef CORVANE_TESTS_ENGINE_TRACES_H
#define CORVANE_TESTS_ENGINE_TRACES_H

#include <optional>
#include <string>
#include <vector>

#include "support/devkit_engine.h"
#include "support/memory_scan.h"
#include "support/vault.h"
#include "support/wiping.h"

namespace support {

// An engine whose callers keep all of their secrets in a vault.
class EngineTraces : public EngineTest {
protected:
    // A new secret.
    Held secret(const std::string& name, size_t size)
    {
        const Held held = vault.random(size);
        mark(name, held);
        return held;
    }

    // Of long ones the ends and the middle.
    void mark(const std::string& name, Held held)
    {
        constexpr uint32_t piece = 4096;
        if (held.size <= 3 * piece) {
            marks.add(name, held.view());
            return;
        }
        marks.add(name + ", first", held.view().substr(0, piece));
        marks.add(name + ", middle", held.view().substr(held.size / 2, piece));
        marks.add(name + ", last", held.view().substr(held.size - piece));
    }

    // A call of the engine; its code.
    template <class Call>
    int code(Call call)
    {
        int result = 0;
        if (!m_kept)
            m_kept.emplace();
        deeperInStack([&] { result = call(); });
        return result;
    }

    std::vector<Trace> traces() const { return tracesHere(marks, {vault.range()}); }

    // That the engine has left nothing. Then the secrets so far are forgotten.
    void expectNoTraces()
    {
        const std::vector<Trace> found = traces();
        EXPECT_TRUE(found.empty()) << textOf(found);
        forget();
    }

    void forget()
    {
        m_kept.reset();
        marks = Marks();
    }

    Vault vault;
    Marks marks;

private:
    std::optional<KeptBlocks> m_kept;  // until they have been looked at
};

}  // namespace support

#endif
