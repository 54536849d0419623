// What the test doubles share with the tests: the journal of calls, and the steps that
// script the answers. Tests own all of it; a double holds only a pointer to its state.
#ifndef CORVANE_TESTS_JOURNAL_H
#define CORVANE_TESTS_JOURNAL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace doubles {

// One argument as the function found it. What a pointer points at is copied.
struct Argument {
    std::string name;
    bool null = false;     // pointers
    long long number = 0;  // numbers, lengths on entry, handles and addresses as values
    std::string bytes;     // buffers by their length, texts up to their NUL
    // Output buffers: whether the whole capacity was zero on entry, and the byte behind
    // it where the buffer has one.
    bool zeroed = false;
};

struct Call {
    std::string function;
    std::vector<Argument> arguments;
    long long result = 0;  // what an int function returned
    bool threw = false;

    const Argument& operator[](const std::string& name) const
    {
        for (const Argument& argument : arguments)
            if (argument.name == name)
                return argument;
        throw std::logic_error(function + " has no argument " + name);
    }

    void add(Argument argument) { arguments.push_back(std::move(argument)); }
};

// Every call into a double and every captured call into the system, in order.
class Journal {
public:
    std::vector<Call> calls;
    // Above 0 while a double is at work, so that allocation faults leave it alone.
    int busy = 0;

    // A call's place among all, or npos if there are fewer calls of that function.
    static constexpr size_t npos = static_cast<size_t>(-1);
    size_t place(const std::string& function, size_t nth = 0) const
    {
        for (size_t i = 0; i < calls.size(); ++i)
            if (calls[i].function == function && nth-- == 0)
                return i;
        return npos;
    }

    size_t count(const std::string& function) const
    {
        size_t found = 0;
        for (const Call& call : calls)
            found += call.function == function;
        return found;
    }

    const Call& at(const std::string& function, size_t nth = 0) const
    {
        const size_t i = place(function, nth);
        if (i == npos)
            throw std::logic_error("the journal has " + std::to_string(count(function)) +
                                   " calls of " + function + ", not " + std::to_string(nth + 1));
        return calls[i];
    }

    const Call& only(const std::string& function) const
    {
        if (count(function) != 1)
            throw std::logic_error("the journal has " + std::to_string(count(function)) +
                                   " calls of " + function + ", not one");
        return at(function);
    }

    // The names alone; with a prefix, of the functions that begin with it.
    std::vector<std::string> functions(const std::string& prefix = "") const
    {
        std::vector<std::string> names;
        for (const Call& call : calls)
            if (call.function.compare(0, prefix.size(), prefix) == 0)
                names.push_back(call.function);
        return names;
    }
};

// How a function answers. As it stands: success, and the function's ordinary work.
struct Step {
    int code = 0;  // returned; with another code than 0 nothing is written unless told below
    std::optional<std::string> output;  // written instead of the ordinary bytes, up to the capacity
    std::optional<long long> reported;  // output length told instead of the true one
    bool beyond = false;                // tell one byte more than the capacity instead
    bool scribble = false;              // fill the whole capacity with 0xAA first
    bool throws = false;                // throw at the end instead of returning
    std::optional<void*> object;        // key pair, certificate or session to give out
    std::optional<std::string> tag;     // bytes of the tag of aven_crypto_encrypt
    std::optional<std::string> text;    // of aven_version and aven_strerror
    bool nullText = false;              // those return null
    std::function<void()> during;       // run before the answer
};

// Steps by function, and by function and the name of the parameter that it is called
// for. Functions with a query (a null output) have a second set for it.
class Script {
public:
    explicit Script(std::vector<std::string> functions) : known(std::move(functions)) {}
    virtual ~Script() = default;

    Step& on(const std::string& function, const std::string& parameter = "")
    {
        return steps[key(function, parameter)];
    }

    Step& onQuery(const std::string& function, const std::string& parameter = "")
    {
        return queries[key(function, parameter)];
    }

    void forget()
    {
        steps.clear();
        queries.clear();
    }

    // What a call answers by; good until the next call. Whoever scripts by other means than
    // names overrides it.
    virtual const Step& step(bool query, const std::string& function,
                             const std::string& parameter = "")
    {
        auto& set = query ? queries : steps;
        const auto special = set.find(function + "/" + parameter);
        return special != set.end() ? special->second : set[function + "/"];
    }

private:
    std::string key(const std::string& function, const std::string& parameter) const
    {
        for (const std::string& name : known)
            if (name == function)
                return function + "/" + parameter;
        throw std::logic_error("no function " + function + " to script");
    }

    std::vector<std::string> known;
    std::map<std::string, Step> steps;
    std::map<std::string, Step> queries;
};

// What a scripted throw throws.
struct ScriptedException {};

// Keeps one call in the journal for as long as the double's function runs.
class Recording {
public:
    Recording(Journal& to, const char* function) : journal(to), index(to.calls.size())
    {
        ++journal.busy;
        journal.calls.emplace_back();
        journal.calls.back().function = function;
        journal.calls.back().arguments.reserve(8);
    }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    ~Recording() { --journal.busy; }

    // Calls made while this one runs may move the others, so it is found by its index.
    Call& call() { return journal.calls[index]; }

    void number(const char* name, long long value)
    {
        Argument argument;
        argument.name = name;
        argument.number = value;
        call().add(std::move(argument));
    }

    void address(const char* name, const void* value)
    {
        Argument argument;
        argument.name = name;
        argument.null = value == nullptr;
        argument.number = static_cast<long long>(reinterpret_cast<intptr_t>(value));
        call().add(std::move(argument));
    }

    void bytes(const char* name, const void* data, long long size)
    {
        Argument argument;
        argument.name = name;
        argument.null = data == nullptr;
        argument.number = size;
        if (data != nullptr && size > 0)
            argument.bytes.assign(static_cast<const char*>(data), static_cast<size_t>(size));
        call().add(std::move(argument));
    }

    void text(const char* name, const char* value)
    {
        Argument argument;
        argument.name = name;
        argument.null = value == nullptr;
        if (value != nullptr)
            argument.bytes = value;
        call().add(std::move(argument));
    }

    // An output buffer of `capacity` bytes, `behind` of them beyond what is offered.
    void output(const char* name, const void* data, long long offered, long long behind)
    {
        Argument argument;
        argument.name = name;
        argument.null = data == nullptr;
        argument.number = offered;
        if (data != nullptr) {
            const char* at = static_cast<const char*>(data);
            argument.zeroed = true;
            for (long long i = 0; i < offered + behind; ++i)
                argument.zeroed = argument.zeroed && at[i] == 0;
        }
        call().add(std::move(argument));
    }

    int finish(const Step& step)
    {
        if (step.throws) {
            call().threw = true;
            throw ScriptedException();
        }
        call().result = step.code;
        return step.code;
    }

private:
    Journal& journal;
    size_t index;
};

}  // namespace doubles

#endif
