/* A module for Lua that crashes in functions of known names, and in threads of its own.
 *
 * Every function that crashes is kept out of line, so that a debugger finds it by its name.
 */
#define _GNU_SOURCE
#include <lauxlib.h>
#include <lua.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#define OUT_OF_LINE __attribute__((noinline, noclone))

enum { THREADS = 8 };

static const char g_constant[] = "crasher: a value that a full dump shows";
char *crasher_value;

OUT_OF_LINE static void crash_by_write(volatile int *where)
{
    *where = 42;
}

OUT_OF_LINE static int crash_by_recursion(volatile char *outer)
{
    volatile char frame[512];
    frame[0] = outer[0];
    return crash_by_recursion(frame) + frame[0];
}

OUT_OF_LINE static void crash_by_abort(void)
{
    abort();
}

/* A mapped page behind the end of the file. */
OUT_OF_LINE static void crash_by_bus_error(void)
{
    const int file = memfd_create("crasher", 0);
    volatile char *page = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    page[0] = 1;
}

OUT_OF_LINE static void crash_by_illegal_instruction(void)
{
    __asm__ volatile("ud2");
}

OUT_OF_LINE static int crash_by_division(volatile int by)
{
    return 42 / by;
}

OUT_OF_LINE static void crash_by_breakpoint(void)
{
    __asm__ volatile("int3");
}

/* The C library aborts while it holds the lock of its allocator. */
OUT_OF_LINE static void crash_in_allocator(void)
{
    char *volatile block = malloc(24);
    free(block);
    free(block);
}

OUT_OF_LINE static void crash_by_call(void (*function)(void))
{
    function();
    crash_by_abort();
}

static void crash_in_handler(int signal)
{
    (void)signal;
    crash_by_write((int *)0x20);
}

static void *crash_at_once(void *barrier)
{
    pthread_barrier_wait(barrier);
    crash_by_write((int *)0x30);
    return NULL;
}

OUT_OF_LINE static void *wait_for_ever(void *barrier)
{
    pthread_setname_np(pthread_self(), "crasher waits");
    pthread_barrier_wait(barrier);
    for (;;)
        pause();
}

static void crash_in_main_thread(void)
{
    signal(SIGUSR1, crash_in_handler);
    syscall(SYS_tgkill, getpid(), getpid(), SIGUSR1);
    for (;;)
        pause();
}

static void start_threads(void *(*run)(void *), unsigned count)
{
    static pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, NULL, count + 1);
    for (unsigned i = 0; i < count; ++i) {
        pthread_t thread;
        if (pthread_create(&thread, NULL, run, &barrier) != 0)
            exit(99);
    }
    pthread_barrier_wait(&barrier);
}

static void crash_in_threads(void)
{
    start_threads(crash_at_once, THREADS);
    for (;;)
        pause();
}

static int Crash(lua_State *L)
{
    const char *how = luaL_checkstring(L, 1);
    crasher_value = strdup(g_constant);
    if (strcmp(how, "write") == 0)
        crash_by_write((int *)0x10);
    else if (strcmp(how, "recursion") == 0)
        crash_by_recursion(how);
    else if (strcmp(how, "abort") == 0)
        crash_by_abort();
    else if (strcmp(how, "bus error") == 0)
        crash_by_bus_error();
    else if (strcmp(how, "illegal instruction") == 0)
        crash_by_illegal_instruction();
    else if (strcmp(how, "division") == 0)
        lua_pushinteger(L, crash_by_division(0));
    else if (strcmp(how, "breakpoint") == 0)
        crash_by_breakpoint();
    else if (strcmp(how, "allocator") == 0)
        crash_in_allocator();
    else if (strcmp(how, "call") == 0)
        crash_by_call((void (*)(void))0x1234);
    else if (strcmp(how, "main thread") == 0)
        crash_in_main_thread();
    else if (strcmp(how, "threads") == 0)
        crash_in_threads();
    return 0;
}

static int Wait(lua_State *L)
{
    start_threads(wait_for_ever, (unsigned)luaL_checkinteger(L, 1));
    return 0;
}

int luaopen_crasher(lua_State *L)
{
    static const luaL_Reg functions[] = {{"crash", Crash}, {"start_waiting_threads", Wait}, {NULL, NULL}};
    luaL_newlib(L, functions);
    return 1;
}
