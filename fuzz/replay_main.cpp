// replay_main.cpp - a fuzz entry point without libFuzzer: every file of the seed corpus directory given,
// then deterministic pseudo-random inputs (mutated seeds and noise). A crash or sanitizer report fails.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Under the sanitizers an impossible allocation comes back as null, as without them (out-of-memory paths run).
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

int main(int argc, char** argv) {
    std::vector<std::vector<uint8_t>> seeds;
    if (argc > 1 && std::filesystem::is_directory(argv[1]))
        for (const auto& e : std::filesystem::directory_iterator(argv[1])) {
            std::ifstream f(e.path(), std::ios::binary);
            seeds.emplace_back(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
        }
    const char* env = std::getenv("OMBRIX_FUZZ_ITERATIONS");
    const long iterations = env ? std::atol(env) : 20000;
    for (const auto& s : seeds) LLVMFuzzerTestOneInput(s.data(), s.size());
    std::mt19937_64 rng(0x0b1c5eed);
    std::vector<uint8_t> buf;
    for (long i = 0; i < iterations; ++i) {
        if (!seeds.empty() && (i & 1)) {
            buf = seeds[rng() % seeds.size()];
            for (size_t k = 0, edits = 1 + rng() % 8; k < edits && !buf.empty(); ++k)
                buf[rng() % buf.size()] = uint8_t(rng());
            if (rng() % 4 == 0) buf.resize(rng() % (buf.size() + 64));
        } else {
            buf.resize(rng() % 512);
            for (auto& b : buf) b = uint8_t(rng() % 7 == 0 ? 0xFF : rng());
        }
        LLVMFuzzerTestOneInput(buf.data(), buf.size());
    }
    std::printf("%ld passed, 0 failed\n", long(seeds.size()) + iterations);
    return 0;
}
