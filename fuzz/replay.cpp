// Replays files and folders of inputs through a fuzz target without libFuzzer; fails when there is
// none, so that a missing seed folder cannot pass unnoticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i]))
            inputs.emplace_back(argv[i]);
        else
            for (const fs::directory_entry &e : fs::directory_iterator(argv[i]))
                if (e.is_regular_file()) inputs.push_back(e.path());
    }
    std::sort(inputs.begin(), inputs.end());
    for (const fs::path &p : inputs) {
        // A buffer of the input's exact size, so that the sanitizer catches any read past it.
        std::vector<uint8_t> data(fs::file_size(p));
        std::ifstream(p, std::ios::binary)
            .read(reinterpret_cast<char *>(data.data()), std::streamsize(data.size()));
        std::fprintf(stderr, "%s\n", p.c_str());  // names the input that fails
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    std::printf("replayed %zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
