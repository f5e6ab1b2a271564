// Writes a fuzz target's seeds into its corpus folder, one file each named by its content,
// so that `make fuzz` starts every target from them and keeps what libFuzzer adds.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds();

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS-FOLDER\n", argv[0]);
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    int written = 0;
    for (const std::string& seed : fuzzSeeds()) {
        uint64_t h = 1469598103934665603ull; // FNV-1a
        for (unsigned char c : seed) h = (h ^ c) * 1099511628211ull;
        char name[32];
        std::snprintf(name, sizeof name, "seed-%016llx", static_cast<unsigned long long>(h));
        if (std::filesystem::exists(dir / name, ec)) continue;
        std::ofstream(dir / name, std::ios::binary).write(seed.data(), std::streamsize(seed.size()));
        ++written;
    }
    std::printf("%s: %d new seeds\n", argv[1], written);
    return 0;
}
