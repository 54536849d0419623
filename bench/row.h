// One row of the table that ratios.sh prints.
#ifndef CORVANE_BENCH_ROW_H
#define CORVANE_BENCH_ROW_H

#include <cstdio>
#include <string>
#include <vector>

// A measured value, what it must be and what it should be.
struct Value {
    double measured;
    double must;
    double goal;
};

enum class Better { Lower, Higher };

// "what | must | goal | measured | met"; met is "goal", "must" or "no", of the worst value.
inline void printRow(const std::string& what, const std::vector<Value>& values,
                     Better better = Better::Lower)
{
    std::string must, goal, measured;
    const auto add = [](std::string& list, double value, const char* format) {
        char text[32];
        snprintf(text, sizeof text, format, value);
        list += (list.empty() ? "" : " / ") + std::string(text);
    };
    const auto holds = [better](double value, double limit) {
        return better == Better::Lower ? value <= limit : value >= limit;
    };
    bool metMust = true;
    bool metGoal = true;
    for (const Value& value : values) {
        add(must, value.must, "%g");
        add(goal, value.goal, "%g");
        add(measured, value.measured, value.measured < 100 ? "%.2f" : "%.0f");
        metMust = metMust && holds(value.measured, value.must);
        metGoal = metGoal && holds(value.measured, value.goal);
    }
    printf("%s|%s|%s|%s|%s\n", what.c_str(), must.c_str(), goal.c_str(), measured.c_str(),
           metGoal   ? "goal"
           : metMust ? "must"
                     : "no");
    fflush(stdout);
}

#endif
