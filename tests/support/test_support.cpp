#include "test_support.h"

#include <algorithm>
#include <cstdio>
#include <sys/wait.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

namespace kivtest {

std::string corpus(const std::string &relative) { return std::string(KIV_CORPUS_DIR) + "/" + relative; }

std::vector<uint8_t> readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string &path, const std::vector<uint8_t> &bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::string tempPath(const std::string &name) {
    static std::string dir = [] {
        std::string d = std::filesystem::temp_directory_path().string() + "/kivjpeg-test-" +
                        std::to_string(getpid());
        std::filesystem::create_directories(d);
        return d;
    }();
    return dir + "/" + name;
}

int run(const std::string &command, std::string *output) {
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return -1;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        text.append(buffer, n);
    int status = pclose(pipe);
    if (output != nullptr)
        *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveTool(const std::string &name) { return run("command -v " + name + " >/dev/null 2>&1") == 0; }

std::vector<uint32_t> processorFlags() {
    uint32_t caps = jpgGetProcessorArchitecture();
    std::vector<uint32_t> flags{0};
    if (caps & JPG_PROCESSOR_SSE2)
        flags.push_back(JPG_PROCESSOR_SSE2);
    if ((caps & JPG_PROCESSOR_SSE2) && (caps & JPG_PROCESSOR_AVX2))
        flags.push_back(JPG_PROCESSOR_SSE2 | JPG_PROCESSOR_AVX2);
    return flags;
}

std::string processorName(uint32_t flag) {
    return (flag & JPG_PROCESSOR_AVX2) ? "avx2" : (flag & JPG_PROCESSOR_SSE2) ? "sse2" : "portable";
}

std::vector<std::string> photographs() {
    std::vector<std::string> files;
    std::error_code ec;
    for (const char *root : {"/usr/share/backgrounds/mate", "/usr/share/backgrounds/ukui",
                             "/usr/share/backgrounds"}) {
        if (!std::filesystem::is_directory(root, ec))
            continue;
        for (auto &entry : std::filesystem::recursive_directory_iterator(root, ec)) {
            auto ext = entry.path().extension().string();
            if (entry.is_regular_file() && (ext == ".jpg" || ext == ".jpeg" || ext == ".JPG"))
                files.push_back(entry.path().string());
        }
        if (!files.empty())
            break;
    }
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    return files;
}

}  // namespace kivtest
