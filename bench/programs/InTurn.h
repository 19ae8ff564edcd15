// InTurn.h: contenders of one program, measured in turn.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

namespace InTurn {

/// One way to do the work of a row.
struct Contender
{
    const char* name;
    std::function<void(int calls, int thread)> run; // `thread` counts from 0
};

/// Nanoseconds per call, as each of `threads` threads waits for them while all of them call.
inline double NanosecondsPerCall(const Contender& contender, int threads, int calls)
{
    std::vector<double> nanoseconds(static_cast<std::size_t>(threads));
    const auto measure = [&](int thread) {
        const auto start = std::chrono::steady_clock::now();
        contender.run(calls, thread);
        const std::chrono::duration<double, std::nano> elapsed = std::chrono::steady_clock::now() - start;
        nanoseconds[static_cast<std::size_t>(thread)] = elapsed.count() / calls;
    };

    std::vector<std::thread> others;
    for (int thread = 1; thread < threads; ++thread)
        others.emplace_back(measure, thread);
    measure(0);
    for (std::thread& other : others)
        other.join();

    double sum = 0;
    for (const double each : nanoseconds)
        sum += each;
    return sum / threads;
}

/// A number of calls or rounds from the command line; 0 for what is none.
inline int Number(const char* text)
{
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

/// Prints "ROW CONTENDER SAMPLE" for each contender and round, a round beginning with another contender each time.
inline void Print(const char* row, const std::vector<Contender>& contenders, int threads, int calls, int rounds)
{
    for (const Contender& contender : contenders)
        contender.run(calls / 10 + 1, 0); // what is only slow once
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < contenders.size(); ++i) {
            const Contender& contender = contenders[(i + static_cast<std::size_t>(round)) % contenders.size()];
            std::printf("%s %s %.2f\n", row, contender.name, NanosecondsPerCall(contender, threads, calls));
        }
    }
}

} // namespace InTurn
