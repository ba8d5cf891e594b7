// Runs the fuzz target on inputs without libFuzzer: every file of the given
// corpus folders, then (with --random N) N inputs drawn from a fixed seed.
// Every build runs the kept corpus this way as a test.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" long zel_fuzz_refused, zel_fuzz_passed, zel_fuzz_skipped;

int main(int argc, char** argv) {
    long files = 0, random = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--random") == 0 && i + 1 < argc) {
            random = std::atol(argv[++i]);
            continue;
        }
        std::vector<std::filesystem::path> paths;
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& e : std::filesystem::directory_iterator(argv[i])) paths.push_back(e.path());
        } else {
            paths.push_back(argv[i]);
        }
        for (const auto& p : paths) {
            std::ifstream in(p, std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++files;
        }
    }
    std::uint64_t state = 0x5EED;
    std::vector<std::uint8_t> buf;
    for (long k = 0; k < random; ++k) {
        buf.resize(16 + std::size_t(k % 1000));
        for (auto& b : buf) {
            state = state * 6364136223846793005ull + 1442695040888963407ull;
            b = std::uint8_t(state >> 56);
        }
        LLVMFuzzerTestOneInput(buf.data(), buf.size());
    }
    std::printf("%ld inputs from files and %ld drawn inputs passed: %ld calls refused by a check, %ld passed the "
                "checks, %ld not made\n", files, random, zel_fuzz_refused, zel_fuzz_passed, zel_fuzz_skipped);
    return 0;
}
