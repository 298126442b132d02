// What every fuzz target shares: a quiet console, the cipher, and a fresh engine for each input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Once per fuzzer process: console output dropped and the test cipher loaded.
// The cipher ("cipher.txt"), static files ("js/") and model files ("devs/")
// are read from the working directory, as the engine reads them; fuzz/run.sh
// runs each target in a directory holding copies of all three.
void fuzz_start();

// The engine as at program start: an empty device image, empty queues, no
// port, no exchange state, no upload waiting, nothing held in memory. Made
// at the start and at the end of every input, so that a crash reproduces from
// its input alone and what an input leaves allocated shows as a leak.
void fresh_engine();

struct FreshEngine {
    FreshEngine() { fresh_engine(); }
    ~FreshEngine() { fresh_engine(); }
    FreshEngine(const FreshEngine&) = delete;
    FreshEngine& operator=(const FreshEngine&) = delete;
};

inline std::string text_of(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}
