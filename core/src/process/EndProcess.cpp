// Flushing what can be flushed, then _exit.
//
// Tested by: blackbox/test_lua_host.py.

#include <VelCore/EndProcess.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <system_error>
#include <thread>

#include <unistd.h>

namespace VelCore {
namespace {

const std::chrono::seconds kFlushPatience{1};

void FlushAll()
{
    std::fflush(stdout);
    std::fflush(nullptr);
}

} // namespace

void EndProcess(int status)
{
    static std::atomic_flag b_Ending = ATOMIC_FLAG_INIT;
    if (b_Ending.test_and_set()) {
        for (;;)
            pause(); // another thread is already ending the process
    }

    // fflush(nullptr) takes the lock of every stream, one after the other; a thread that blocks in a read holds one of
    // them. So the flush runs beside us and gets a limited time.
    static std::promise<void>& flushed = *new std::promise<void>;
    try {
        std::thread([] {
            FlushAll();
            flushed.set_value();
        }).detach();
        flushed.get_future().wait_for(kFlushPatience);
    } catch (const std::system_error&) {
        FlushAll(); // no thread to be had: then nobody is waiting for input in one either, as a rule
    }
    _exit(status);
}

} // namespace VelCore
