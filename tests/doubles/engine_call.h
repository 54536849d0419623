// One call of the engine's double: its record in the journal, and the step of the script that it
// follows.
#ifndef CORVANE_TESTS_ENGINE_CALL_H
#define CORVANE_TESTS_ENGINE_CALL_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "engine_double.h"

namespace doubles {

class EngineCall : public Recording {
public:
    EngineCall(EngineDouble& engine, const char* function, bool query = false)
        : Recording(engine.journal, function),
          m_engine(engine),
          m_step(engine.step(query, function))
    {
    }

    const Step& step() const { return m_step; }

    // Offers *len bytes at out; heap buffers have a byte more.
    void offered(const unsigned char* out, const uint32_t* len, long long behind)
    {
        output("out", out, *len, behind);
        number("out_len", *len);
    }

    // Fills the output and ends the call. `ordinary` is what an unscripted call writes.
    int answer(unsigned char* out, uint32_t* len, const std::string& ordinary)
    {
        start();
        if (out == nullptr) {
            if (m_step.code == 0 || m_step.reported)
                *len = static_cast<uint32_t>(
                    m_step.reported.value_or(static_cast<long long>(ordinary.size())));
            return finish(m_step);
        }
        const uint32_t capacity = *len;
        const uint32_t written = write(out, capacity, ordinary);
        if (m_step.beyond)
            *len = capacity + 1;
        else if (m_step.code == 0 || m_step.output || m_step.reported)
            *len = static_cast<uint32_t>(m_step.reported.value_or(written));
        return finish(m_step);
    }

    // The same for a buffer whose length the engine does not tell.
    uint32_t write(unsigned char* out, uint32_t capacity, const std::string& ordinary)
    {
        if (m_step.scribble)
            memset(out, 0xAA, capacity);
        if (m_step.code != 0 && !m_step.output)
            return 0;
        const std::string& bytes = m_step.output ? *m_step.output : ordinary;
        const auto size = static_cast<uint32_t>(std::min<size_t>(bytes.size(), capacity));
        memcpy(out, bytes.data(), size);
        return size;
    }

    int answer()
    {
        start();
        return finish(m_step);
    }

    int giveObject(Objects& objects, void** place)
    {
        start();
        if (m_step.object)
            *place = *m_step.object;
        else if (m_step.code == 0)
            *place = objects.give();
        if (*place != nullptr && (m_step.object || m_step.code == 0))
            objects.take(*place);
        return finish(m_step);
    }

    const char* answerText(const std::string& ordinary)
    {
        start();
        finish(m_step);
        m_engine.text = m_step.text.value_or(ordinary);
        return m_step.nullText ? nullptr : m_engine.text.c_str();
    }

    void start() const
    {
        if (m_step.during)
            m_step.during();
    }

private:
    EngineDouble& m_engine;
    const Step m_step;  // a copy: `during` may change the script
};

}  // namespace doubles

#endif
