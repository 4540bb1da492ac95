// Stand-in tool that prints "crashing" and dies from a segmentation fault.
#include <csignal>
#include <cstdio>

#include <sys/resource.h>

// Under the sanitizer builds the runtime would catch the signal and exit with a status instead.
extern "C" const char* __asan_default_options()
{
    return "handle_segv=0";
}

extern "C" const char* __tsan_default_options()
{
    return "handle_segv=0";
}

int main()
{
    // No core file in the test's working directory.
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    std::puts("crashing");
    std::fflush(stdout);
    std::raise(SIGSEGV);
    return 0;
}
