// Tests of the outgoing frame queues and the access-password block.
#include "link/queue_to_dev.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "crypto/CryptoKey.h"

// A block that would not fit one frame is refused; pop tells whether the queue is empty
// afterwards, and clear also forgets the transfer's resend count and start.
TEST(BBQueue, PopClearAndTheFrameLimit) {
    BBQueue q;
    std::vector<char> block(508, 'x');
    EXPECT_EQ(q.add_bb_packet(block.data(), 508), 0) << "too long for one frame";
    for (int i = 0; i < 2; ++i) ASSERT_EQ(q.add_bb_packet(block.data(), 507), 1);
    // from two frames, from one, from none
    EXPECT_FALSE(q.pop());
    EXPECT_TRUE(q.pop());
    EXPECT_TRUE(q.pop());

    ASSERT_EQ(q.add_bb_packet(block.data(), 507), 1);
    q.num_try = 2;
    q.start_flag = true;
    q.clear();
    size_t len = 99;
    EXPECT_EQ(q.get(len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(q.num_try, 0u);
    EXPECT_FALSE(q.start_flag);
}

// The challenge is enciphered under the password repeated with CR separators to 32 bytes;
// without cipher data nothing is queued and one time-stamped line says why.
TEST(Queue, AddPassQueuesAChallengeForThePasswordKey) {
    Queue q;
    std::string error, password = "12345", empty;
    ASSERT_FALSE(load_cipher_text("", error));
    testing::internal::CaptureStdout();
    EXPECT_EQ(q.add_pass(password), 0);
    std::string printed = testing::internal::GetCapturedStdout();
    for (char& c : printed) c = c >= '0' && c <= '9' ? '9' : c;  // any time stamp reads 99:99:99.999
    EXPECT_EQ(printed, "99:99:99.999 Cipher table not loaded: access password not sent\n");

    ASSERT_TRUE(load_cipher_file(VORCORE_SOURCE_DIR "/data/cipher-test.txt", error)) << error;
    EXPECT_EQ(q.add_pass(empty), 0) << "an empty password queues nothing";
    // {password, the key it must be enciphered with}
    const std::pair<std::string, std::string> cases[] = {
        {"12345", "12345\r12345\r12345\r12345\r12345\r12"},
        {"abcdefghijklmnopqrstuvwxyz012345", "abcdefghijklmnopqrstuvwxyz012345"},
    };
    for (auto [password, key] : cases) {
        ASSERT_EQ(q.add_pass(password), 1) << password;
        std::vector<char> wire;
        ASSERT_TRUE(q.get_copy(wire));
        q.pop();
        std::vector<uint8_t> f, plain;  // f: the frame with its byte stuffing undone
        for (size_t i = 0; i < wire.size(); ++i) f.push_back(wire[i] == 0x7D ? wire[++i] ^ 0x40 : wire[i]);
        // "~0023B", 0x82, 0x00, 16 enciphered bytes, 0x7F
        ASSERT_EQ(f.size(), 25u);
        EXPECT_EQ(std::string(f.begin(), f.begin() + 8) + char(f.back()),
                  std::string("~0023B\x82\x00\x7f", 9));
        // 8 random bytes and their CRC
        EXPECT_EQ(DecryptGOST(f.data() + 8, 16, reinterpret_cast<const uint8_t*>(key.data()), plain), 10);
    }
}

// Two producers on their own threads, the device thread's get_copy/pop on this one: every frame
// arrives once and in its producer's order. Run under ThreadSanitizer to check the locking.
TEST(Queue, ConcurrentProducersAndConsumerKeepEveryFrameInOrder) {
    Queue q;
    constexpr int frames = 2000;
    // Five-byte frames: the producer's tag and a four-digit sequence number.
    auto produce = [&q](char tag) {
        for (int i = 0; i < frames; ++i) q.cmd_to_dev((tag + std::to_string(1000 + i)).data(), 5);
    };
    std::thread a(produce, 'a'), b(produce, 'b');
    std::map<char, int> taken;  // frames taken per producer
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (taken['a'] + taken['b'] < 2 * frames && std::chrono::steady_clock::now() < deadline) {
        std::vector<char> frame;
        if (!q.get_copy(frame)) continue;
        q.pop();
        EXPECT_EQ(std::string(frame.begin(), frame.end()),
                  frame[0] + std::to_string(1000 + taken[frame[0]]++));
    }
    for (std::thread* producer : {&a, &b}) producer->join();
    EXPECT_EQ(taken, (std::map<char, int>{{'a', frames}, {'b', frames}}));
}
