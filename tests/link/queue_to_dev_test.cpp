// Tests of the outgoing frame queues and the access-password block.
#include "link/queue_to_dev.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "crypto/CryptoKey.h"

namespace {

std::vector<char> frame_of(const std::string& s) {
    return std::vector<char>(s.begin(), s.end());
}

std::string head_of(Queue& q) {
    size_t len = 99;
    char* head = q.get(len);
    if (head == nullptr) return len == 0 ? "<empty>" : "<null with length>";
    return std::string(head, len);
}

// The reader's side of byte stuffing: 0x7D is dropped and the next byte XORed with 0x40.
std::vector<uint8_t> unstuff(const std::vector<char>& bytes) {
    std::vector<uint8_t> out;
    bool escaped = false;
    for (char c : bytes) {
        if (c == 0x7D) {
            escaped = true;
            continue;
        }
        out.push_back(static_cast<uint8_t>(escaped ? c ^ 0x40 : c));
        escaped = false;
    }
    return out;
}

void load_test_cipher() {
    std::string error;
    const std::string path = std::string(VORCORE_SOURCE_DIR) + "/data/cipher-test.txt";
    ASSERT_TRUE(load_cipher_file(path.c_str(), error)) << error;
}

}  // namespace

TEST(Queue, PopTellsWhetherTheQueueIsNowEmpty) {
    struct Case {
        int queued;
        bool pop_result;
        size_t left;
    } cases[] = {{0, true, 0}, {1, true, 0}, {2, false, 1}, {3, false, 2}};
    for (const Case& c : cases) {
        Queue q;
        for (int i = 0; i < c.queued; ++i) {
            std::vector<char> f = frame_of("frame" + std::to_string(i));
            q.to_dev(f);
        }
        EXPECT_EQ(q.pop(), c.pop_result) << c.queued << " queued";
        EXPECT_EQ(q.size(), c.left) << c.queued << " queued";
        EXPECT_EQ(q.is_empty(), c.left == 0) << c.queued << " queued";
        if (c.left > 0) {
            EXPECT_EQ(head_of(q), "frame1") << "the oldest frame left the queue";
        }
    }
}

TEST(Queue, HeadStaysUntilPoppedAndIsCopiedWhole) {
    Queue q;
    std::vector<char> copy = frame_of("untouched");
    EXPECT_EQ(head_of(q), "<empty>");
    EXPECT_FALSE(q.get_copy(copy));

    char raw[] = {'~', '0', '0', '0', '7', 'F', 'S', 'F', 0x7F, 'X'};
    q.cmd_to_dev(raw, 9);
    raw[6] = 'Z';  // the queue owns its own copy of the bytes
    std::vector<char> second = frame_of(std::string("a\0b", 3));
    q.to_dev(second);

    EXPECT_EQ(head_of(q), "~0007FSF\x7f");
    EXPECT_EQ(head_of(q), "~0007FSF\x7f") << "get does not remove the head";
    ASSERT_TRUE(q.get_copy(copy));
    EXPECT_EQ(copy, frame_of("~0007FSF\x7f"));
    EXPECT_FALSE(q.pop());
    EXPECT_EQ(head_of(q), std::string("a\0b", 3));
    EXPECT_TRUE(q.pop());
}

TEST(BBQueue, ClearEmptiesAndEndsTheTransfer) {
    BBQueue q;
    char block[] = {1, 2, 3};
    ASSERT_EQ(q.add_bb_packet(block, 3), 1);
    ASSERT_EQ(q.add_bb_packet(block, 3), 1);
    q.num_try = 2;
    q.start_flag = true;

    Queue& as_queue = q;
    as_queue.clear();  // the override runs through a base reference too
    EXPECT_EQ(head_of(q), "<empty>");
    EXPECT_TRUE(q.is_empty());
    EXPECT_EQ(q.size(), 0u);
    EXPECT_EQ(q.num_try, 0u);
    EXPECT_FALSE(q.start_flag);
    EXPECT_TRUE(q.pop());
}

TEST(BBQueue, AddBbPacketFramesStuffedBlocksWithinTheLimit) {
    BBQueue q;
    std::vector<char> big(507, 'x');
    std::vector<char> too_big(508, 'x');
    char stuffed[] = {0x01, 0x7E, 0x02};

    EXPECT_EQ(q.add_bb_packet(nullptr, 5), 0);
    EXPECT_EQ(q.add_bb_packet(stuffed, 0), 0);
    EXPECT_EQ(q.add_bb_packet(too_big.data(), 508), 0);
    EXPECT_TRUE(q.is_empty()) << "refused blocks queue nothing";

    EXPECT_EQ(q.add_bb_packet(stuffed, 3), 1);
    EXPECT_EQ(q.add_bb_packet(big.data(), 507), 1);
    EXPECT_EQ(q.size(), 2u);
    EXPECT_EQ(head_of(q), std::string("~0008B\x01}>\x02\x7f"));
    q.pop();
    EXPECT_EQ(head_of(q), "~0512B" + std::string(507, 'x') + "\x7f");
}

TEST(PassKey, RepeatsThePasswordWithSeparators) {
    struct Case {
        std::string password;
        std::string key;
    } cases[] = {
        {"12345", "12345\r12345\r12345\r12345\r12345\r12"},
        {"abcdefghijklmnopqrstuvwxyz012345", "abcdefghijklmnopqrstuvwxyz012345"},
        {"abcdefghijklmnopqrstuvwxyz0123456789", "abcdefghijklmnopqrstuvwxyz012345"},
        {"x", "x\rx\rx\rx\rx\rx\rx\rx\rx\rx\rx\rx\rx\rx\rx\rx\r"},
    };
    for (const Case& c : cases) {
        uint8_t key[32];
        build_pass_key(c.password, key);
        ASSERT_EQ(c.key.size(), 32u);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(key), 32), c.key) << c.password;
    }
}

TEST(Queue, AddPassQueuesAnEncryptedChallenge) {
    load_test_cipher();
    Queue q;
    std::string empty;
    EXPECT_EQ(q.add_pass(empty), 0);
    EXPECT_TRUE(q.is_empty());
    EXPECT_FALSE(q.pass_sent);
    EXPECT_FALSE(q.pass_rejected);

    for (std::string password : {std::string("12345"), std::string("abcdefghijklmnopqrstuvwxyz012345")}) {
        testing::internal::CaptureStdout();
        ASSERT_EQ(q.add_pass(password), 1) << password;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "nothing printed with a cipher loaded";

        std::vector<char> frame;
        ASSERT_TRUE(q.get_copy(frame));
        q.pop();
        ASSERT_GE(frame.size(), 25u);
        EXPECT_EQ(std::string(frame.begin(), frame.begin() + 6), "~0023B");
        EXPECT_EQ(frame.back(), 0x7F);
        std::vector<uint8_t> payload = unstuff(std::vector<char>(frame.begin() + 6, frame.end() - 1));
        ASSERT_EQ(payload.size(), 18u) << password;
        EXPECT_EQ(payload[0], 0x82);
        EXPECT_EQ(payload[1], 0x00);

        uint8_t key[32];
        build_pass_key(password, key);
        std::vector<uint8_t> challenge;
        EXPECT_EQ(DecryptGOST(payload.data() + 2, 16, key, challenge), 10) << "8 random bytes and their CRC";
        EXPECT_EQ(challenge.size(), 8u);
    }
}

TEST(Queue, AddPassIsRefusedWithoutCipherData) {
    std::string error;
    ASSERT_FALSE(load_cipher_text("# nothing here\n", error));
    Queue q;
    std::string password = "12345";
    testing::internal::CaptureStdout();
    EXPECT_EQ(q.add_pass(password), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(q.is_empty());
    // One time-stamped line: "hh:mm:ss.mmm " and the reason.
    const std::string reason = "Cipher table not loaded: access password not sent\n";
    ASSERT_EQ(printed.size(), 13 + reason.size()) << printed;
    EXPECT_EQ(printed.substr(13), reason);
    EXPECT_EQ(printed[2], ':');
    EXPECT_EQ(printed[8], '.');
    load_test_cipher();
}

// Producers on two threads, the device thread's get_copy/pop on another: every frame arrives
// once, in each producer's order. Run under ThreadSanitizer to check the locking.
TEST(Queue, ConcurrentProducersAndConsumerKeepEveryFrame) {
    load_test_cipher();
    Queue q;
    constexpr int per_producer = 2000;
    auto producer = [&q](char tag) {
        for (int i = 0; i < per_producer; ++i) {
            std::string text = std::string(1, tag) + std::to_string(i);
            q.cmd_to_dev(text.data(), text.size());
        }
    };
    std::thread a(producer, 'a');
    std::thread b(producer, 'b');
    std::thread c([&q] {
        std::string password = "12345";
        for (int i = 0; i < 20; ++i) q.add_pass(password);
    });

    int next_a = 0, next_b = 0, passes = 0;
    bool in_order = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((next_a + next_b < 2 * per_producer || passes < 20) &&
           std::chrono::steady_clock::now() < deadline) {
        std::vector<char> frame;
        if (!q.get_copy(frame)) {
            std::this_thread::yield();
            continue;
        }
        q.pop();
        const std::string text(frame.begin(), frame.end());
        if (text[0] == '~') {
            ++passes;
        } else if (text[0] == 'a') {
            in_order = in_order && text == "a" + std::to_string(next_a++);
        } else {
            in_order = in_order && text == "b" + std::to_string(next_b++);
        }
    }
    a.join();
    b.join();
    c.join();
    EXPECT_TRUE(in_order);
    EXPECT_EQ(next_a, per_producer);
    EXPECT_EQ(next_b, per_producer);
    EXPECT_EQ(passes, 20);
    EXPECT_TRUE(q.is_empty());
    EXPECT_EQ(q.size(), 0u);
}
