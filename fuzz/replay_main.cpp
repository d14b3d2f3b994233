// The replay builds' main: every file named, or found under a directory named, goes to the target
// once, so the kept corpus runs as an ordinary test without libFuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    std::vector<fs::path> inputs;
    std::error_code error;
    for (int i = 1; i < argc && !error; ++i) {
        if (!fs::is_directory(argv[i], error)) {
            inputs.push_back(argv[i]);
            continue;
        }
        for (fs::recursive_directory_iterator at(argv[i], error), end; !error && at != end; at.increment(error)) {
            if (at->is_regular_file(error)) inputs.push_back(at->path());
        }
    }
    std::sort(inputs.begin(), inputs.end());  // a failure names the same input on every run
    for (const fs::path& input : inputs) {
        std::ifstream file(input, std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (error || !file.is_open() || file.bad()) {
            std::fprintf(stderr, "replay: cannot read %s\n", input.string().c_str());
            return 2;
        }
        // Named before it runs: a crash ends the process, and the last name is the culprit.
        std::printf("replay: %s (%zu bytes)\n", input.string().c_str(), bytes.size());
        std::fflush(stdout);
        // Exactly the input's size, so the sanitizers see any read past its end.
        std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), copy.get());
        LLVMFuzzerTestOneInput(copy.get(), bytes.size());
    }
    std::printf("replay: ran %zu inputs\n", inputs.size());
    return error ? 2 : inputs.empty() ? 1 : 0;  // no input at all is a mistake in the arguments
}
