// Doubles whose answers are not scripted by function: each call of the engine takes the next from
// a queue. For requests that no test has written down: the request fuzzer and the replay.
#ifndef CORVANE_TESTS_ANSWERING_DOUBLES_H
#define CORVANE_TESTS_ANSWERING_DOUBLES_H

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>

#include "doubles/engine_double.h"
#include "doubles/params_double.h"

namespace support {

// What a call answers: a code and, with an output, so many bytes of it as fit. `how` is 1
// to tell one byte more than there is room for, or to give no object and no text.
struct Answer {
    int code = 0;
    unsigned length = 16;
    int how = 0;
};

// More than any output has room for.
inline const std::string LONGEST_OUTPUT = [] {
    std::string bytes(1 << 16, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(0xF9 + i * 0x35);
    return bytes;
}();

inline const std::string WHOLE_TAG(16, '\xFE');

// Without an answer in the queue, a call succeeds.
class AnsweringEngine : public doubles::EngineDouble {
public:
    using EngineDouble::EngineDouble;

    const doubles::Step& step(bool query, const std::string& function, const std::string&) override
    {
        m_answer = {};
        if (!answers.empty()) {
            m_answer = answers.front();
            answers.pop_front();
        }
        const bool isOdd = m_answer.how == 1;
        m_step = {};
        m_step.code = m_answer.code;
        if (query)
            m_step.reported = m_answer.length;
        else if (isOdd || function == "aven_crypto_kdf")
            m_step.output = LONGEST_OUTPUT;
        else
            m_step.output = LONGEST_OUTPUT.substr(0, m_answer.length);
        if (function == "aven_version" || function == "aven_strerror") {
            m_step.text = LONGEST_OUTPUT.substr(0, m_answer.length);
            std::replace(m_step.text->begin(), m_step.text->end(), '\0', '0');
        }
        m_step.beyond = isOdd;
        m_step.tag = WHOLE_TAG;
        m_step.nullText = isOdd;
        if (function == "aven_ke_new")
            m_step.object = reinterpret_cast<void*>(static_cast<uintptr_t>(m_answer.length));
        else if (isOdd)
            m_step.object = nullptr;
        m_step.during = [this, query] { take(journal.calls.back(), query); };
        return m_step;
    }

    void forgetObjects()
    {
        for (doubles::Objects* objects : {&sessions, &keypairs, &certificates})
            *objects = doubles::Objects(objects->first);
    }

    std::deque<Answer> answers;

protected:
    // Told of each call, with its arguments, before it answers.
    virtual void take(const doubles::Call&, bool /*query*/) {}

    Answer m_answer;  // of the call that is being answered
    doubles::Step m_step;
};

// An ordinary module that may tell false lengths.
class AnsweringParams : public doubles::ParamsDouble {
public:
    using ParamsDouble::ParamsDouble;

    const doubles::Step& step(bool query, const std::string&, const std::string& name) override
    {
        const bool isThere = std::any_of(http.begin(), http.end(),
                                         [&](const auto& pair) { return pair.first == name; });
        m_step = {};
        if (!query && toldLength >= 0 && isThere)
            m_step.reported = toldLength;
        m_step.during = [this] { take(journal.calls.back()); };
        return m_step;
    }

    long toldLength = -1;  // by second reads, unless negative

protected:
    virtual void take(const doubles::Call&) {}

private:
    doubles::Step m_step;
};

}  // namespace support

#endif
