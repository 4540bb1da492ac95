// Stand-in tool that hangs: `fake_sleep SECONDS [BEFORE] [AFTER]` prints BEFORE, sleeps, AFTER.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main(int argc, char* argv[])
{
    const long seconds = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 3600;
    if (argc > 2) {
        std::puts(argv[2]);
        std::fflush(stdout);
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    if (argc > 3)
        std::puts(argv[3]);
    return 0;
}
