// main() of a fuzz target's replay test: runs every file of the directories
// and files named on the command line through LLVMFuzzerTestOneInput once, as
// libFuzzer would, so that the committed corpus (and every crash input added
// to it) is checked by every build, gcc included. A crash fails the test; so
// does finding no input at all, which means a wrong corpus path.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

namespace fs = std::filesystem;

bool Collect(const fs::path& path, std::vector<fs::path>& files)
{
    std::error_code error;
    if (fs::is_directory(path, error)) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path, error)) {
            if (entry.is_regular_file()) {
                files.push_back(entry.path());
            }
        }
    } else if (fs::is_regular_file(path, error)) {
        files.push_back(path);
    } else {
        fprintf(stderr, "no such file or directory: %s\n", path.c_str());
        return false;
    }
    return !error;
}

}  // namespace

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (!Collect(argv[i], files)) {
            return 1;
        }
    }
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        // Exactly the input's size on the heap, so that a sanitizer sees any over-read.
        std::vector<uint8_t> input(bytes.begin(), bytes.end());
        fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), input.size());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    fprintf(stderr, "replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
