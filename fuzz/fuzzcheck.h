// What every fuzz target shares: a quiet message log set up before the first input, and checks
// that stop the run on a broken rule.
#pragma once

#include <cstdio>
#include <cstdlib>

#include <QtGlobal>

namespace fuzz {

// The parsers log on purpose for malformed input; printing that for every run would bury the
// fuzzer's own output. A fatal message still aborts, so the fuzzer reports it as a crash.
inline void quiet_messages()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
        if (type == QtFatalMsg) {
            std::fprintf(stderr, "fatal: %s\n", qPrintable(text));
            std::abort();
        }
    });
}

// A rule of the parser's contract that no input may break; a broken one is a finding.
inline void require(bool holds, const char* rule)
{
    if (!holds) {
        std::fprintf(stderr, "broken rule: %s\n", rule);
        std::abort();
    }
}

} // namespace fuzz

// Each target is one translation unit of its own executable, so the hook libFuzzer calls once
// before the first input is defined here rather than repeated in every target.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::quiet_messages();
    return 0;
}
