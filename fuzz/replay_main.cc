// Runs a fuzz target's entry point once over each file in the directories
// (or files) named on the command line, in name order: its seeds and every
// crash input ever found, replayed by the test suite with the project's
// own compiler and sanitizer presets, without libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path p(argv[i]);
        if (fs::is_directory(p)) {
            for (const auto& e : fs::directory_iterator(p))
                if (e.is_regular_file()) inputs.push_back(e.path());
        } else if (fs::is_regular_file(p)) {
            inputs.push_back(p);
        }  // a target without crash inputs has no regressions directory
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        std::fprintf(stderr, "%s: no inputs to replay\n", argv[0]);
        return 2;
    }
    if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
    for (const fs::path& p : inputs) {
        // Its own allocation of exactly the input's length, as under libFuzzer.
        std::vector<uint8_t> bytes(fs::file_size(p));
        std::ifstream in(p, std::ios::binary);
        if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()))) {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], p.c_str());
            return 2;
        }
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return 0;
}
