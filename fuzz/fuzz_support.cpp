// What every fuzz target shares: a quiet console, the cipher, and a fresh engine for each input.
#include "fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

#include "core/engine.h"
#include "core/utils.h"
#include "crypto/CryptoKey.h"
#include "http/file_cache.h"
#include "http/post_api.h"
#include "link/dev_port.h"
#include "link/exchange.h"
#include "link/link_record.h"

namespace fs = std::filesystem;

void fuzz_start() {
    // The engine prints a line for much of what it refuses; the fuzzer's own
    // report goes to standard error.
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    // The test cipher, from the working directory as the engine reads it, or from the source tree.
    std::string cipher, error;
    if (!read_file(cipher_file_name, cipher)) read_file(VORCORE_SOURCE_DIR "/data/cipher-test.txt", cipher);
    if (!load_cipher_text(cipher, error)) {
        fprintf(stderr, "the test cipher did not load: %s\n", error.c_str());
        abort();
    }
    if (!fs::is_directory("js") || !fs::is_directory("devs"))
        fprintf(stderr,
                "No js/ and devs/ in the working directory: static files and model files are not found "
                "(fuzz/run.sh runs each target where they are)\n");
    fresh_engine();
}

void fresh_engine() {
    // A port the last input left open (none opens in this build, but a test
    // harness may set one) is closed first; closing also empties the queues.
    close_dev();
    std::destroy_at(&parser);
    std::construct_at(&parser);
    std::destroy_at(&queue);
    std::construct_at(&queue);
    std::destroy_at(&bbqueue);
    std::construct_at(&bbqueue);
    exchange_reset();
    link_record_reset();
    is_exit = false;
    std::vector<char>().swap(cry_file_content);
    clear_static_files();
    CRY_256_RESET_WITHOUT_RAND();
    srand(1);
}
