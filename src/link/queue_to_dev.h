// Outgoing frame queues from the HTTP side to the device thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

// Frames of single commands that may wait for the panel at once. A
// configuration write is not counted: its packets are queued whole.
inline constexpr size_t QUEUE_COMMAND_LIMIT = 256;
// Bytes of all frames waiting in both queues together at most: a write that
// would pass it is refused whole.
inline constexpr size_t QUEUE_BYTES_LIMIT = 64 * 1024 * 1024;

class Queue {
public:
    Queue();
    virtual ~Queue();
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void to_dev(std::vector<char>& frame);
    void cmd_to_dev(char* data, size_t len);
    // Queues the frame of a single command from the browser; false, and
    // nothing queued, when QUEUE_COMMAND_LIMIT such frames already wait.
    // `ends_link` marks a restart or reset of the panel (commands 21 and 22):
    // the receipt of that very frame closes the link, whatever its bytes.
    bool command_to_dev(const std::vector<char>& frame, bool ends_link = false);
    // True while one more command frame may be queued.
    bool command_room();
    // Queues the frames of one configuration write, in order, at once.
    void frames_to_dev(std::vector<std::vector<char>>& frames);
    // True while a frame that is not a single command (a configuration
    // write's, its end command included) waits to be written.
    bool write_frames_waiting();
    // Bytes of all frames waiting.
    size_t queued_bytes();
    // Head frame without removing it; null and len 0 when empty. The pointer
    // stays valid until pop or clear.
    char* get(size_t& len);
    // Copy of the head frame; false when empty. The device thread uses this
    // so that a clear from the HTTP thread cannot pull the bytes away.
    bool get_copy(std::vector<char>& frame);
    // How the head frame was queued.
    struct Marks {
        bool command = false;    // a single command (not a configuration write's frame)
        bool ends_link = false;  // a restart or reset: its receipt closes the link
    };
    // The same, also telling how the frame was queued.
    bool get_copy(std::vector<char>& frame, Marks& marks);
    // Removes the head; true when the queue is empty afterwards.
    bool pop();
    // Builds the access-password block and queues it as a command frame; 1
    // queued, 0 not (also when QUEUE_COMMAND_LIMIT command frames wait).
    int add_pass(std::string& password);
    bool is_empty();
    size_t size();
    virtual void clear();

    std::atomic<bool> pass_sent{false};      // password block queued, no answer yet
    std::atomic<bool> pass_rejected{false};  // the panel answered it with "AN3"

protected:
    struct Queued {
        std::vector<char> frame;
        bool command;    // from a single command, counted against QUEUE_COMMAND_LIMIT
        bool ends_link;  // its receipt closes the link (restart or reset)
    };
    void push(std::vector<char> frame, bool command, bool ends_link = false);

    std::list<Queued> packets;
    uint64_t count = 0;
    size_t commands = 0;  // elements of packets with `command` set
    size_t bytes = 0;     // of all frames in packets
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
