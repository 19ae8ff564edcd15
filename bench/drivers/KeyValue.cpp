// The domain store: nanoseconds per call, as a caller waits for them, while one or two threads call.
//
// Usage: kx_bench_kv KEYS SECONDS   (SECONDS for each figure)

#include <atomic>
#include <string>
#include <vector>

#include "Driver.h"

namespace {

const double kNanosecondsPerSecond = 1e9;

// Looking at the clock costs more than a call.
const std::size_t kCallsPerLook = 1024;

// Keeps the compiler from removing what is measured.
std::atomic<std::size_t> g_sink{0};

std::vector<std::string> MakeKeys(int count)
{
    std::vector<std::string> keys;
    for (int number = 0; number < count; ++number)
        keys.push_back("bench.group" + std::to_string(number % 10) + ".key" + std::to_string(number));
    return keys;
}

// `call` gets a key and returns something that depends on its work.
template <typename Call>
double NanosecondsPerCall(int threads, double seconds, const std::vector<std::string>& keys, const Call& call)
{
    struct Share
    {
        std::size_t calls = 0;
        double seconds = 0;
    };
    std::vector<Share> shares(static_cast<std::size_t>(threads));
    Driver::OnThreads(threads, [&](int thread) {
        Share share;
        std::size_t next = static_cast<std::size_t>(thread) * keys.size() / 2;
        std::size_t sum = 0;
        const Driver::Clock::time_point start = Driver::Clock::now();
        do {
            for (std::size_t i = 0; i < kCallsPerLook; ++i) {
                next = next + 1 < keys.size() ? next + 1 : 0;
                sum += call(keys[next]);
            }
            share.calls += kCallsPerLook;
            share.seconds = Driver::SecondsSince(start);
        } while (share.seconds < seconds);
        g_sink += sum;
        shares[static_cast<std::size_t>(thread)] = share;
    });

    Share all;
    for (const Share& share : shares) {
        all.calls += share.calls;
        all.seconds += share.seconds;
    }
    return all.seconds * kNanosecondsPerSecond / static_cast<double>(all.calls);
}

} // namespace

int main(int argc, char** argv)
{
    Driver::ExpectArguments(argc, 2, "usage: kx_bench_kv KEYS SECONDS");
    const auto keys = MakeKeys(Driver::PositiveCount(argv[1], "KEYS"));
    const double seconds = Driver::PositiveNumber(argv[2], "SECONDS");

    const Driver::CCore core(".");
    VelCore::CDom& dom = core.Dom();
    for (const std::string& key : keys)
        dom.Set(key, "a value of an ordinary length");

    const auto get = [&dom](const std::string& key) { return dom.Get(key).size(); };
    const std::string value = "another value of such a length";
    const auto set = [&dom, &value](const std::string& key) {
        dom.Set(key, value);
        return value.size();
    };
    Driver::Print("get 1thread", NanosecondsPerCall(1, seconds, keys, get));
    Driver::Print("get 2threads", NanosecondsPerCall(2, seconds, keys, get));
    Driver::Print("set 1thread", NanosecondsPerCall(1, seconds, keys, set));
    Driver::Print("set 2threads", NanosecondsPerCall(2, seconds, keys, set));
    return 0;
}
