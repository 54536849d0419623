// Tells the program that measures that its thread is in a library beside the plug-in, for
// as long as an object lives.
#ifndef CORVANE_BENCH_OUTSIDE_H
#define CORVANE_BENCH_OUTSIDE_H

// The program's; absent from one that does not care.
extern "C" __attribute__((weak, visibility("default"))) void bench_outside(int entered);

class Outside {
public:
    Outside() { tell(1); }
    ~Outside() { tell(0); }
    Outside(const Outside&) = delete;
    Outside& operator=(const Outside&) = delete;

private:
    static void tell(int entered)
    {
        if (bench_outside != nullptr)
            bench_outside(entered);
    }
};

#endif
