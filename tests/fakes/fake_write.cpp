// Stand-in upload: writes the file after "-U" (else the last argument), exit code as fake_exit.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

int main(int argc, char* argv[])
{
    if (argc < 2)
        return 2;
    const char* target = argv[argc - 1];
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "-U") == 0)
            target = argv[i + 1];
    }

    // The bytes of the file named by $LUMAXIS_FAKE_WRITE_FROM, else the text of
    // $LUMAXIS_FAKE_WRITE_TEXT, else nothing.
    // The bytes of the file named by $LUMAXIS_FAKE_WRITE_FROM, else the text of
    // $LUMAXIS_FAKE_WRITE_TEXT, else nothing.
    std::string content;
    if (const char* from = std::getenv("LUMAXIS_FAKE_WRITE_FROM")) {
        std::ifstream in(from, std::ios::binary);
        if (!in)
            return 3;
        content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    } else if (const char* text = std::getenv("LUMAXIS_FAKE_WRITE_TEXT")) {
        content = text;
    }

    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush())
        return 4;
    const char* code = std::getenv("LUMAXIS_FAKE_EXIT_CODE");
    return code ? std::atoi(code) : 0;
}
