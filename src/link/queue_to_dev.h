// Outgoing frame queues from the HTTP side to the device thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

class Queue {
public:
    Queue();
    virtual ~Queue();
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void to_dev(std::vector<char>& frame);
    void cmd_to_dev(char* data, size_t len);
    // Head frame without removing it; null and len 0 when empty. The pointer
    // stays valid until pop or clear.
    char* get(size_t& len);
    // Copy of the head frame; false when empty. The device thread uses this
    // so that a clear from the HTTP thread cannot pull the bytes away.
    bool get_copy(std::vector<char>& frame);
    // Removes the head; true when the queue is empty afterwards.
    bool pop();
    // Builds the access-password block and queues it; 1 queued, 0 not.
    int add_pass(std::string& password);
    bool is_empty();
    size_t size();
    virtual void clear();

    std::atomic<bool> pass_sent{false};      // password block queued, no answer yet
    std::atomic<bool> pass_rejected{false};  // the panel answered it with "AN3"

protected:
    std::list<std::vector<char>> packets;
    uint64_t count = 0;
    pthread_mutex_t mutex;
};

class BBQueue : public Queue {
public:
    BBQueue();
    // Frames data as a stuffed "B" frame and queues it; 0 when refused.
    int add_bb_packet(char* data, int len);
    void clear() override;

    std::atomic<uint32_t> num_try{0};     // resends of the head block
    std::atomic<bool> start_flag{false};  // a new transfer was just queued
};

// Builds the 32-byte password key: the password, 0x0D, the password again...
void build_pass_key(const std::string& password, uint8_t key[32]);
