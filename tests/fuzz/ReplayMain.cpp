// Runs a harness over kept inputs, without libFuzzer: fuzz_replay_NAME FILE-OR-FOLDER...

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = std::filesystem;

static void replay(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
    // Printed first, so that a crash shows the input.
    std::printf("%s, %zu bytes\n", file.filename().c_str(), bytes.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

int main(int argc, char** argv)
{
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        if (!fs::is_directory(argv[i])) {
            replay(argv[i]);
            ++files;
            continue;
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(argv[i])) {
            replay(entry.path());
            ++files;
        }
    }
    std::printf("%d inputs\n", files);
    return files > 0 ? 0 : 1;
}
