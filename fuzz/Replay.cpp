// Feeds a fuzzing target with the files of the folders that are named, for compilers without a
// fuzzer.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int count, char** arguments) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < count; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(arguments[i])) {
            files.push_back(entry.path());
        }
    }
    std::ranges::sort(files);
    for (const auto& name : files) {
        std::printf("%s\n", name.c_str());
        std::fflush(stdout);  // before what it may break
        std::ifstream file(name, std::ios::binary);
        const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
        std::vector<std::uint8_t> data(bytes.begin(), bytes.end());
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    return files.empty() ? 1 : 0;
}
