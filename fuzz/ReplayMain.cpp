// Replays stored fuzz inputs without libFuzzer: every file named on the command line, or found in
// a directory named there, is fed to LLVMFuzzerTestOneInput once, in name order. A finding aborts
// (sanitizer report or FUZZ_CHECK), which fails the test that runs the replay.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replayFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A private copy of exactly the input's size, so that reading past it is caught.
    std::vector<uint8_t> copy(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(copy.empty() ? nullptr : copy.data(), copy.size());
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i)
    {
        const std::filesystem::path argument(argv[i]);
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(argument))
        {
            for (const auto& entry : std::filesystem::directory_iterator(argument))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            if (files.empty())
            {
                std::fprintf(stderr, "no inputs in %s\n", argv[i]);
                return 1;
            }
        }
        else if (std::filesystem::is_regular_file(argument))
            files.push_back(argument);
        else
        {
            std::fprintf(stderr, "no such file or directory: %s\n", argv[i]);
            return 1;
        }
        for (const auto& file : files)
        {
            if (!replayFile(file))
                return 1;
            ++replayed;
        }
    }
    std::printf("replayed %zu inputs\n", replayed);
    return 0;
}
