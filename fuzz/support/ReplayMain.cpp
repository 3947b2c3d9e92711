// Replays saved fuzz inputs without libFuzzer: every file named on the command
// line, or found in a directory named there, is passed once to the target's
// LLVMFuzzerTestOneInput, in name order. Exits non-zero when no input was found,
// so that a missing corpus never passes as a green test.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

int main(int argc, char** argv)
{
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg = argv[i];
        if (fs::is_directory(arg)) {
            for (const auto& entry : fs::directory_iterator(arg))
                if (entry.is_regular_file()) inputs.push_back(entry.path());
        } else {
            inputs.push_back(arg);
        }
    }
    std::sort(inputs.begin(), inputs.end());
    if (inputs.empty()) {
        std::fprintf(stderr, "no input to replay\n");
        return 2;
    }
    for (const fs::path& path : inputs) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 2;
        }
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::fprintf(stderr, "replaying %s (%zu bytes)\n", path.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "%zu inputs replayed\n", inputs.size());
    return 0;
}
