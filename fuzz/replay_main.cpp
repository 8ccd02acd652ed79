// Runs a fuzz target's entry point over files and directories of inputs, so
// that the test suite replays seeds and past crashers with any compiler.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

static int run_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(data.data(), data.size());
    return 1;
}

int main(int argc, char** argv) {
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        fs::path p(argv[i]);
        std::error_code ec;
        if (fs::is_directory(p, ec)) {
            for (const auto& e : fs::recursive_directory_iterator(p, ec))
                if (e.is_regular_file()) runs += run_file(e.path());
        } else if (fs::is_regular_file(p, ec)) {
            runs += run_file(p);
        }
    }
    std::printf("replayed %d inputs\n", runs);
    return 0;
}
