// Helpers shared by the test groups: corpus paths, file I/O, external tools.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/handle.h"

namespace kivtest {

// Path of a file under the shared corpus (e.g. "samples/testorig.jpg").
std::string corpus(const std::string &relative);

std::vector<uint8_t> readFile(const std::string &path);
void writeFile(const std::string &path, const std::vector<uint8_t> &bytes);

// A fresh path under the test's temporary directory.
std::string tempPath(const std::string &name);

// Runs a shell command; returns its exit status and captures standard output.
int run(const std::string &command, std::string *output = nullptr);

// True when a program is on the PATH.
bool haveTool(const std::string &name);

// The processor flags whose routines this machine can run: 0 (portable),
// then SSE2, then SSE2 with AVX2, as far as jpgGetProcessorArchitecture
// reports them.
std::vector<uint32_t> processorFlags();

// A name for a processor flag in test output ("portable", "sse2", "avx2").
std::string processorName(uint32_t flag);

// JPEG files of Debian's photograph packages, when installed.
std::vector<std::string> photographs();

}  // namespace kivtest
