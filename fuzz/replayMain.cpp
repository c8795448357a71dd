// Runs a harness over files and folders of inputs without libFuzzer, so that every build replays
// the checked-in corpora under ctest (and under whatever sanitizer the build carries).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace
{

void replayFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in),
                                  std::istreambuf_iterator<char>()};
    // A copy on the heap of exactly the input's size lets an address sanitizer catch a read past
    // the end, as libFuzzer's own buffer would.
    std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.empty() ? nullptr : input.data(), input.size());
}

} // namespace

int main(int argc, char** argv)
{
    unsigned long replayed = 0;
    for (int i = 1; i < argc; ++i)
    {
        const std::filesystem::path path(argv[i]);
        if (std::filesystem::is_directory(path))
        {
            std::vector<std::filesystem::path> files;
            for (const auto& entry : std::filesystem::directory_iterator(path))
                if (entry.is_regular_file())
                    files.push_back(entry.path());
            std::sort(files.begin(), files.end());
            for (const auto& file : files)
            {
                replayFile(file);
                ++replayed;
            }
        }
        else
        {
            replayFile(path);
            ++replayed;
        }
    }
    std::printf("replayed %lu inputs\n", replayed);
    return replayed == 0 ? 1 : 0;
}
