// Replays a fuzz target's inputs without libFuzzer, so that the ordinary test suite (and its
// sanitizer build) runs every seed and every input a target ever failed on. Arguments are files
// or directories (their regular files, in name order); a target that finds a fault aborts, which
// fails the test.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// libFuzzer's own default bound on an input's length is far below this.
constexpr std::uintmax_t kMaxInputBytes = 1 << 20;

std::vector<std::filesystem::path> inputsOf(const std::filesystem::path& argument) {
    std::error_code error;
    if (!std::filesystem::is_directory(argument, error)) {
        return {argument};
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argument, error)) {
        if (entry.is_regular_file(error)) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const std::filesystem::path& file : inputsOf(argv[i])) {
            std::error_code error;
            std::uintmax_t size = std::filesystem::file_size(file, error);
            if (error || size > kMaxInputBytes) {
                std::fprintf(stderr, "cannot replay %s: %s\n", file.c_str(),
                             error ? error.message().c_str() : "larger than 1 MiB");
                return 1;
            }
            std::ifstream in(file, std::ios::binary);
            std::string bytes((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
            std::fprintf(stderr, "replaying %s\n", file.c_str());
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                   bytes.size());
            ++replayed;
        }
    }
    std::printf("replayed %d inputs\n", replayed);
    return 0;
}
