// A stand-in for dfu-util, steered by files in $FAKE_DFU_UTIL_CONTROL: uploads copy the -s length
// from otp.bin or flash.bin, then it prints <command>.stdout and exits with <command>.exit.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace fs = std::filesystem;

static std::string read_file(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int main(int argc, char** argv)
{
    const fs::path control(std::getenv("FAKE_DFU_UTIL_CONTROL"));
    std::string range, target, command = "version";
    for (int i = 1; i + 1 < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-s")
            range = argv[i + 1];
        else if (arg == "-U")
            target = argv[i + 1];
        else if (arg == "-D")
            command = "download_FW";
    }
    if (!target.empty()) {
        command = range == "0x1FFF7800:512"    ? "upload_OTP"
                  : range == "0x08000000:2048" ? "upload_FW_info"
                                               : "upload_FW";
        // As the real tool: an existing target is never overwritten.
        if (fs::exists(target))
            return 73;
        const std::string memory =
            read_file(control / (command == "upload_OTP" ? "otp.bin" : "flash.bin"));
        std::ofstream(target, std::ios::binary)
            << memory.substr(0, std::stoul(range.substr(range.find(':') + 1)));
    }
    std::cout << read_file(control / (command + ".stdout"));
    const std::string code = read_file(control / (command + ".exit"));
    return code.empty() ? 0 : std::stoi(code);
}
