// Throughput of the GOST cipher scheme, CRC16 and binary framing on buffers of typical sizes.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "crypto/CryptoKey.h"
#include "link/pk7.h"
#include "link/queue_to_dev.h"

namespace {

bool load_test_cipher(benchmark::State& state) {
    std::string error;
    // The benchmark is built from the source tree, so the test data lies beside it.
    std::string path = __FILE__;
    path = path.substr(0, path.rfind('/') + 1) + "../data/cipher-test.txt";
    if (load_cipher_file(path.c_str(), error)) return true;
    state.SkipWithError(error.c_str());
    return false;
}

void fixed_key(uint8_t key[32]) {
    build_pass_key("bench-password", key);
}

// Encrypting a buffer of n bytes: padding, chaining and n/8 block encryptions.
void BM_EncryptGOST(benchmark::State& state) {
    if (!load_test_cipher(state)) return;
    const int n = static_cast<int>(state.range(0));
    uint8_t key[32];
    fixed_key(key);
    std::vector<uint8_t> buf(static_cast<size_t>(n) + 9);
    for (auto _ : state) {
        benchmark::DoNotOptimize(EncryptGOST(buf.data(), n, key));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * n);
}
BENCHMARK(BM_EncryptGOST)->Arg(10)->Arg(512)->Arg(65528);

// Decrypting a .cry-sized payload, including the CRC check over the result.
void BM_DecryptGOST(benchmark::State& state) {
    if (!load_test_cipher(state)) return;
    const int n = static_cast<int>(state.range(0));
    uint8_t key[32];
    fixed_key(key);
    std::vector<uint8_t> plain(static_cast<size_t>(n) + 9, 0x41);
    const uint16_t crc = CryptoKey::CRC16(plain.data(), n - 2);
    plain[static_cast<size_t>(n) - 2] = static_cast<uint8_t>(crc & 0xFF);
    plain[static_cast<size_t>(n) - 1] = static_cast<uint8_t>(crc >> 8);
    const int total = EncryptGOST(plain.data(), n, key);
    std::vector<uint8_t> out;
    for (auto _ : state) {
        std::vector<uint8_t> work(plain.begin(), plain.begin() + total);
        benchmark::DoNotOptimize(DecryptGOST(work.data(), total, key, out));
    }
    state.SetBytesProcessed(state.iterations() * total);
}
BENCHMARK(BM_DecryptGOST)->Arg(512)->Arg(65528);

void BM_CRC16(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    std::vector<uint8_t> data(static_cast<size_t>(n), 0x5A);
    for (auto _ : state) benchmark::DoNotOptimize(CryptoKey::CRC16(data.data(), n));
    state.SetBytesProcessed(state.iterations() * n);
}
BENCHMARK(BM_CRC16)->Arg(512)->Arg(65536);

// Framing a full firmware block whose bytes all need escaping: the worst case.
void BM_FormBinaryFrameWorstCase(benchmark::State& state) {
    std::vector<char> block(507, 0x7E);
    std::vector<char> frame;
    for (auto _ : state) {
        benchmark::DoNotOptimize(form_pk7_packet_binary('B', block.data(), block.size(), frame));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(block.size()));
}
BENCHMARK(BM_FormBinaryFrameWorstCase);

}  // namespace
