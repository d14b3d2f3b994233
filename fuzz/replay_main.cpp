// The main of the replay builds of the fuzz targets: feeds every file named on the command line,
// or found under a named directory, to the target once, so that the kept corpus (seeds and every
// crash fuzzing ever found) runs as an ordinary test in the builds without libFuzzer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
namespace fs = std::filesystem;

// Every regular file under path (path itself when it is one), in name order so that a failure
// names the same input on every run.
bool CollectInputs(const fs::path& path, std::vector<fs::path>* inputs) {
    std::error_code error;
    if (fs::is_regular_file(path, error)) {
        inputs->push_back(path);
        return true;
    }
    if (!fs::is_directory(path, error)) {
        return false;
    }
    std::vector<fs::path> found;
    for (fs::recursive_directory_iterator at(path, error), end; !error && at != end; at.increment(error)) {
        if (at->is_regular_file(error)) {
            found.push_back(at->path());
        }
    }
    if (error) {
        return false;
    }
    std::sort(found.begin(), found.end());
    inputs->insert(inputs->end(), found.begin(), found.end());
    return true;
}

bool ReadInput(const fs::path& path, std::vector<uint8_t>* bytes) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    bytes->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}
}  // namespace

int main(int argc, char** argv) {
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (!CollectInputs(argv[i], &inputs)) {
            std::fprintf(stderr, "replay: cannot read %s\n", argv[i]);
            return 2;
        }
    }
    size_t ran = 0;
    for (const fs::path& input : inputs) {
        std::vector<uint8_t> bytes;
        if (!ReadInput(input, &bytes)) {
            std::fprintf(stderr, "replay: cannot read %s\n", input.string().c_str());
            return 2;
        }
        // Named before it runs: a crash ends the process, and the last name is the culprit.
        std::printf("replay: %s (%zu bytes)\n", input.string().c_str(), bytes.size());
        std::fflush(stdout);
        // A copy of exactly the input's size, as libFuzzer passes it, so that the sanitizers
        // see any read past its end.
        std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size()]);
        std::copy(bytes.begin(), bytes.end(), copy.get());
        LLVMFuzzerTestOneInput(copy.get(), bytes.size());
        ++ran;
    }
    std::printf("replay: ran %zu inputs\n", ran);
    // No input at all is a mistake in the test's arguments, never a pass.
    return ran > 0 ? 0 : 1;
}
