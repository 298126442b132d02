// Outgoing frame queues from the HTTP side to the device thread, and the access-password block.
#include "link/queue_to_dev.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/debug.h"
#include "core/mutex_lock.h"
#include "crypto/CryptoKey.h"
#include "link/pk7.h"

namespace {

constexpr size_t pass_key_size = 32;
constexpr uint8_t pass_key_separator = 0x0D;
constexpr int challenge_size = 8;
constexpr int plaintext_size = challenge_size + 2;  // the random bytes and their CRC16
constexpr int ciphertext_size = 16;                 // 5 padding bytes, 10 bytes, trailer: two blocks
constexpr uint8_t pass_block_tag[2] = {0x82, 0x00};

}  // namespace

Queue::Queue() {
    if (pthread_mutex_init(&mutex, nullptr) == 0) return;
    console_line("Queue mutex_init error");
    // Fall back to a statically initialised mutex so that later locking is still defined.
    mutex = PTHREAD_MUTEX_INITIALIZER;
}

Queue::~Queue() {
    pthread_mutex_destroy(&mutex);
}

void Queue::push(std::vector<char> frame, bool command, bool ends_link) {
    bytes += frame.size();
    packets.push_back({std::move(frame), command, ends_link});
    ++count;
    if (command) ++commands;
}

void Queue::to_dev(std::vector<char>& frame) {
    MutexLock lock(mutex);
    push(frame, false);
}

bool Queue::command_to_dev(const std::vector<char>& frame, bool ends_link) {
    MutexLock lock(mutex);
    if (commands >= QUEUE_COMMAND_LIMIT) return false;
    push(frame, true, ends_link);
    return true;
}

bool Queue::command_room() {
    MutexLock lock(mutex);
    return commands < QUEUE_COMMAND_LIMIT;
}

void Queue::frames_to_dev(std::vector<std::vector<char>>& frames) {
    MutexLock lock(mutex);
    for (std::vector<char>& frame : frames) push(std::move(frame), false);
}

bool Queue::write_frames_waiting() {
    MutexLock lock(mutex);
    return count > commands;
}

size_t Queue::queued_bytes() {
    MutexLock lock(mutex);
    return bytes;
}

void Queue::cmd_to_dev(char* data, size_t len) {
    if (data == nullptr && len != 0) return;
    std::vector<char> frame(data, data + len);
    to_dev(frame);
}

char* Queue::get(size_t& len) {
    MutexLock lock(mutex);
    if (packets.empty()) {
        len = 0;
        return nullptr;
    }
    len = packets.front().frame.size();
    return packets.front().frame.data();
}

bool Queue::get_copy(std::vector<char>& frame) {
    Marks marks;
    return get_copy(frame, marks);
}

bool Queue::get_copy(std::vector<char>& frame, Marks& marks) {
    MutexLock lock(mutex);
    if (packets.empty()) return false;
    frame = packets.front().frame;
    marks.command = packets.front().command;
    marks.ends_link = packets.front().ends_link;
    return true;
}

bool Queue::pop() {
    MutexLock lock(mutex);
    if (!packets.empty()) {
        if (packets.front().command) --commands;
        bytes -= packets.front().frame.size();
        packets.pop_front();
        --count;
    }
    return packets.empty();
}

bool Queue::is_empty() {
    MutexLock lock(mutex);
    return packets.empty();
}

size_t Queue::size() {
    MutexLock lock(mutex);
    return static_cast<size_t>(count);
}

void Queue::clear() {
    MutexLock lock(mutex);
    packets.clear();
    count = 0;
    commands = 0;
    bytes = 0;
}

void build_pass_key(const std::string& password, uint8_t key[32]) {
    size_t from = 0;
    for (size_t i = 0; i < pass_key_size; ++i) {
        if (from == password.size()) {
            key[i] = pass_key_separator;
            from = 0;
            continue;
        }
        key[i] = static_cast<uint8_t>(password[from++]);
    }
}

int Queue::add_pass(std::string& password) {
    if (password.empty()) return 0;
    if (!cipher_ready()) {
        console_stamped("Cipher table not loaded: access password not sent");
        return 0;
    }

    // Room for the padding and trailer that EncryptGOST adds in place.
    uint8_t block[plaintext_size + 8];
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    for (int i = 0; i < challenge_size; ++i) block[i] = static_cast<uint8_t>(std::rand());
    const uint16_t crc = CryptoKey::CRC16(block, challenge_size);
    block[challenge_size] = static_cast<uint8_t>(crc & 0xFF);
    block[challenge_size + 1] = static_cast<uint8_t>(crc >> 8);

    uint8_t key[pass_key_size];
    build_pass_key(password, key);
    const int enciphered = EncryptGOST(block, plaintext_size, key);
    // The key is the password in another shape: do not leave it on the stack.
    explicit_bzero(key, sizeof key);
    if (enciphered != ciphertext_size) return 0;

    char payload[sizeof pass_block_tag + ciphertext_size];
    std::memcpy(payload, pass_block_tag, sizeof pass_block_tag);
    std::memcpy(payload + sizeof pass_block_tag, block, ciphertext_size);
    std::vector<char> frame;
    if (form_pk7_packet_binary('B', payload, sizeof payload, frame) != 1) return 0;
    return command_to_dev(frame) ? 1 : 0;
}

BBQueue::BBQueue() = default;

int BBQueue::add_bb_packet(char* data, int len) {
    if (data == nullptr || len <= 0) return 0;
    std::vector<char> frame;
    const int framed = form_pk7_packet_binary('B', data, static_cast<size_t>(len), frame);
    if (framed != 1) return framed;
    to_dev(frame);
    return framed;
}

void BBQueue::clear() {
    MutexLock lock(mutex);
    packets.clear();
    count = 0;
    commands = 0;
    bytes = 0;
    num_try = 0;
    start_flag = false;
}
