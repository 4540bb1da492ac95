// A stand-in for dfu-util, steered by files in $FAKE_DFU_UTIL_CONTROL: it records each call's
// arguments, uploads from otp.bin / flash.bin (the unit's memories), checks that a download's file
// exists, prints <command>.stdout and exits with <command>.exit.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr unsigned long flash_base = 0x08000000;
constexpr unsigned long otp_base = 0x1FFF7800;

std::string read_file(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string value_after(const std::vector<std::string>& args, const std::string& option)
{
    for (std::size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == option)
            return args[i + 1];
    }
    return {};
}

bool has(const std::vector<std::string>& args, const std::string& option)
{
    for (const auto& a : args) {
        if (a == option)
            return true;
    }
    return false;
}

// The command words of the program's table, told apart the way the unit sees them.
std::string command_of(const std::vector<std::string>& args)
{
    if (has(args, "-V"))
        return "version";
    if (has(args, "-l"))
        return "list";
    if (has(args, "-D"))
        return "download_FW";
    if (has(args, "-U")) {
        const std::string range = value_after(args, "-s");
        if (range == "0x1FFF7800:512")
            return "upload_OTP";
        if (range == "0x08000000:2048")
            return "upload_FW_info";
        return "upload_FW";
    }
    return "other";
}

int finish(const fs::path& control, const std::string& command)
{
    std::cout << read_file(control / (command + ".stdout"));
    const std::string code = read_file(control / (command + ".exit"));
    return code.empty() ? 0 : std::stoi(code);
}

int upload(const fs::path& control, const std::vector<std::string>& args)
{
    const std::string range = value_after(args, "-s");
    const std::size_t colon = range.find(':');
    if (colon == std::string::npos) {
        std::cerr << "Invalid -s argument\n";
        return 64;
    }
    const unsigned long address = std::stoul(range.substr(0, colon), nullptr, 16);
    const std::size_t length = std::stoul(range.substr(colon + 1));
    const fs::path memory = control / (address >= otp_base ? "otp.bin" : "flash.bin");
    const unsigned long offset = address - (address >= otp_base ? otp_base : flash_base);
    if (!fs::exists(memory)) {
        std::cerr << "No DFU capable USB device available\n";
        return 74;
    }
    const std::string target = value_after(args, "-U");
    // As the real tool: an existing target is never overwritten.
    if (fs::exists(target)) {
        std::cerr << "Cannot open file " << target << " for writing: File exists\n";
        return 73;
    }
    const std::string bytes = read_file(memory);
    std::ofstream out(target, std::ios::binary);
    // A short memory ends the upload early, as a short block does on the real unit.
    if (offset < bytes.size())
        out << bytes.substr(offset, length);
    return 0;
}

int download(const std::vector<std::string>& args)
{
    const std::string source = value_after(args, "-D");
    if (!fs::exists(source)) {
        std::cerr << "Could not open file " << source
                  << " for reading: No such file or directory\n";
        return 66;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const char* dir = std::getenv("FAKE_DFU_UTIL_CONTROL");
    if (!dir) {
        std::cerr << "FAKE_DFU_UTIL_CONTROL is not set\n";
        return 2;
    }
    const fs::path control(dir);
    const std::vector<std::string> args(argv + 1, argv + argc);

    {
        std::ofstream calls(control / "calls", std::ios::app);
        for (std::size_t i = 0; i < args.size(); ++i)
            calls << (i ? "\t" : "") << args[i];
        calls << '\n';
    }

    const std::string command = command_of(args);
    int code = 0;
    if (command == "upload_OTP" || command == "upload_FW_info" || command == "upload_FW")
        code = upload(control, args);
    else if (command == "download_FW")
        code = download(args);
    if (code != 0)
        return code;
    return finish(control, command);
}
