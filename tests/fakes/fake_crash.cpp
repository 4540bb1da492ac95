// Stand-in tool that prints "crashing" and dies from a segmentation fault.
#include <csignal>
#include <cstdio>

#include <sys/resource.h>

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
