// Stand-in tool: prints its arguments one per line and exits with $LUMAXIS_FAKE_EXIT_CODE.
#include <cstdio>
#include <cstdlib>

int main(int argc, char* argv[])
{
    for (int i = 1; i < argc; ++i)
        std::printf("%s\n", argv[i]);
    // Lets a test show that standard error is kept apart from the output.
    if (const char* text = std::getenv("LUMAXIS_FAKE_STDERR"))
        std::fprintf(stderr, "%s\n", text);
    const char* code = std::getenv("LUMAXIS_FAKE_EXIT_CODE");
    return code ? std::atoi(code) : 0;
}
