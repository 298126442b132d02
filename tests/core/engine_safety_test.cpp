// The engine as a hostile local client meets it: other users, silent and non-reading sockets,
// huge bodies, files, links and terminals as ports or drives, a panel that stopped reading,
// listeners on the other loopback address, restarts, and a firmware upload that outlives the browser.
#include <grp.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>

#include "http/listen_socket.h"
#include "support/engine_fixture.h"

using namespace harness;
namespace fs = std::filesystem;

namespace {

const std::string api = "/tuning/device?id=-1&";
const std::string ok_answer = json_answer(ok_body), error_answer = json_answer(error_body);
const std::string port_error =
    json_answer(R"({"result":"error","description":"Ошибка подключения к порту"})");
const std::string version_answer = json_answer(R"({ "result":{"version":"5.2.22"} })");

// The answer to `request` read by a client process running as `uid`.
std::string exchange_as(uid_t uid, int port, const std::string& request) {
    int pipe_ends[2];
    if (pipe(pipe_ends) != 0) return "<no pipe>";
    Fd from_child(pipe_ends[0]), to_parent(pipe_ends[1]);
    pid_t child = fork();
    if (child == 0) {
        std::string answer = "<setuid failed>";
        if (setgroups(0, nullptr) == 0 && setgid(uid) == 0 && setuid(uid) == 0)
            answer = harness::exchange(port, request);
        ssize_t ignored = write(to_parent.get(), answer.data(), answer.size());
        (void)ignored;
        _exit(0);
    }
    to_parent.reset();
    std::string answer = read_text_file("/proc/self/fd/" + std::to_string(from_child.get()));
    waitpid(child, nullptr, 0);
    return answer;
}

// A child process that runs `body` as another local user (uid 65534; as the test's own user unless
// the test runs as root) until the object goes.
struct AsOtherUser {
    template <typename Body>
    explicit AsOtherUser(Body body) {
        pid = fork();
        if (pid != 0) return;
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
            _exit(1);
        body();
        _exit(0);
    }
    ~AsOtherUser() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    pid_t pid;
};

// Connections opened and dropped as fast as a client can.
void flood(int port) {
    const std::string request = local_get(port, "/tuning/device?id=-1&exit");
    for (;;) {
        Fd connection = connect_to(port);
        send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL);
    }
}

// A socket bound to [::1] on `port` (listening when asked); invalid when the port is taken there.
Fd bind_ipv6_loopback(int port, bool listening) {
    Fd fd(socket(AF_INET6, SOCK_STREAM, 0));
    int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    sockaddr_storage address = loopback_address(AF_INET6, port);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(sockaddr_in6)) != 0) return Fd();
    if (listening && listen(fd.get(), 1) != 0) return Fd();
    return fd;
}

// Moves this process into a network namespace of its own whose loopback is up and has no IPv6.
bool enter_network_without_ipv6() {
    if (unshare(CLONE_NEWNET) != 0) return false;
    Fd control(socket(AF_INET, SOCK_DGRAM, 0));
    ifreq lo{};
    strcpy(lo.ifr_name, "lo");
    if (ioctl(control.get(), SIOCGIFFLAGS, &lo) != 0) return false;
    lo.ifr_flags |= IFF_UP;
    if (ioctl(control.get(), SIOCSIFFLAGS, &lo) != 0) return false;
    std::ofstream("/proc/sys/net/ipv6/conf/lo/disable_ipv6") << "1";
    return true;
}

bool same_mode(const termios& a, const termios& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_lflag == b.c_lflag &&
           a.c_cflag == b.c_cflag;
}

// One engine without a panel.
struct Safety : EngineTest {
    std::string get(const std::string& query) { return engine_->get(query); }
    std::string path(const std::string& name) { return dir_.path() + "/" + name; }
};

}  // namespace

// A client that never reads a 20 MB answer, and 300 connections that say nothing (more than the 256
// the engine keeps: the oldest silent ones make room), delay no one.
TEST_F(Safety, SilentAndNonReadingClientsDelayNoOne) {
    fs::create_directories(path("js"));
    std::ofstream(path("js/big.js")) << std::string(20 << 20, 'x');
    int port = engine_->port();
    Fd hog = connect_to(port);
    send_text(hog, local_get(port, "/big.js"));
    pollfd answered{hog.get(), POLLIN, 0};
    ASSERT_EQ(poll(&answered, 1, 10000), 1);  // being answered: it no longer waits to be served
    auto hog_served = Clock::now();

    std::vector<Fd> silent;
    for (int i = 0; i < 300 && silent.size() == static_cast<size_t>(i); ++i) {
        Fd connection = connect_to(port);
        if (connection.get() >= 0) silent.push_back(std::move(connection));
    }
    ASSERT_EQ(silent.size(), 300u);
    auto start = Clock::now();
    EXPECT_EQ(harness::exchange(port, local_get(port, api + "version=")), version_answer);
    EXPECT_LT(seconds_since(start), 0.05);
    EXPECT_EQ(read_to_close(silent.front(), 2), "");
    EXPECT_EQ(read_to_close(silent.back(), 0.2), "<timed out>");
    // The client that does not take its answer is dropped after 5 s.
    EXPECT_TRUE(engine_->printed("send failed\n", 8));
    EXPECT_GT(seconds_since(hog_served), 4.5);
}

// A body declared above 16 MiB is refused before a byte of it is read; 16 MiB itself is accepted,
// but one that does not come whole is never processed.
TEST_F(Safety, OversizedBodyIsRefusedBeforeItIsRead) {
    const std::string head = "POST /upload HTTP/1.1\r\nHost: localhost\r\nContent-Length: ";
    size_t printed = engine_->console().size();
    EXPECT_EQ(engine_->request(head + "2000000000\r\n\r\n" + std::string(1000, 'x')),
              "HTTP/1.1 413 Payload Too Large\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(engine_->request(head + "16777216\r\n\r\nabc"), cut_body_answer);
    EXPECT_EQ(engine_->printed_since(printed),
              "@ Request refused, body of 2000000000 bytes is over the limit of 16777216\n"
              "@ Error size query body\n");
}

// The panel's port must be a terminal a panel can be, of root or the invoking user: a file, a link
// to it, another user's terminal, /dev/tty, the console and the engine's own terminal are refused
// before anything touches them. A link to our own terminal
// is fine; when that terminal stops reading, writes give up after a second and disconnect answers.
TEST_F(Safety, PortMustBeATerminalOfOursAndAStuckOneCannotHoldTheEngine) {
    std::ofstream(path("file")) << "precious\n";
    fs::create_symlink(path("file"), path("file-link"));
    EXPECT_EQ(get("cmd=100&text=line\nroot::0:0::/:/bin/sh"), ok_answer);  // a frame waits for a port
    // The last would make a file if it ever reached a shell unquoted. Terminals no panel can be are
    // refused too: frames must never land on a screen or the installer's own terminal.
    std::vector<std::string> refused = {path("file"), path("file-link"), "/dev/null;touch${IFS}pwned",
                                        "/dev/tty",   "/dev/console",    "/dev/null"};
    Pty theirs(true);
    termios before{}, after{};
    tcgetattr(theirs.slave.get(), &before);
    if (geteuid() == 0 && chown(theirs.path.c_str(), 65534, -1) == 0)
        refused.push_back(theirs.path);
    else
        std::cout << "Not checked: another user's terminal (needs root to give one away)\n";
    size_t printed = engine_->console().size();
    std::string lines;
    for (const std::string& port : refused) {
        EXPECT_EQ(get("cmd=11&com=" + port), port_error) << port;
        lines += "Error. Don't open device (w)" + port + "\n";
    }
    EXPECT_EQ(engine_->printed_since(printed), lines);
    EXPECT_EQ(read_text_file(path("file")), "precious\n");
    EXPECT_FALSE(fs::exists(path("pwned")));
    tcgetattr(theirs.slave.get(), &after);
    EXPECT_TRUE(same_mode(before, after));
    // The terminal the engine runs on, although it is a pseudo-terminal of ours.
    Pty own(true);
    TempDir own_dir;
    EngineProcess on_terminal(own_dir, "<" + own.path);
    tcgetattr(own.slave.get(), &before);
    EXPECT_EQ(on_terminal.get("cmd=11&com=" + own.path), port_error);
    tcgetattr(own.slave.get(), &after);
    EXPECT_TRUE(same_mode(before, after));
    on_terminal.exit_cleanly();

    Pty stuck;
    fs::create_symlink(stuck.path, path("ttyUSB-TEST"));
    ASSERT_EQ(get("cmd=11&com=" + path("ttyUSB-TEST")), ok_answer);
    // Each lone end byte makes the engine write a 7-byte receipt: 3100 of them fill the pty.
    fcntl(stuck.master.get(), F_SETFL, O_NONBLOCK);
    std::string ends(3100, '\x7f');
    auto start = Clock::now();
    for (size_t sent = 0; sent < ends.size() && seconds_since(start) < 10; usleep(20000)) {
        ssize_t n = write(stuck.master.get(), ends.data() + sent, ends.size() - sent);
        if (n > 0) sent += static_cast<size_t>(n);
    }
    ASSERT_TRUE(engine_->printed("write receipt OK error", 10)) << "the pty never filled";
    start = Clock::now();
    EXPECT_EQ(get("cmd=11"), ok_answer);
    EXPECT_LT(seconds_since(start), 2);
    // The device thread drops the rest of what it read, and the engine goes on serving.
    EXPECT_TRUE(engine_->printed("clear packet without parsing", 10));
    EXPECT_EQ(get("version="), version_answer);
}

// Command 5 makes clock.txt and CONFIG.INI inside the drive's directory and follows no link: a link
// in a file's place fails that write (CONFIG.INI is then removed and written anew), a link in the
// directory's place fails both. No link's target is ever touched.
TEST_F(Safety, DriveWritesFollowNoLink) {
    fs::create_directories(path("drive"));
    fs::create_directories(path("elsewhere"));
    std::ofstream(path("target")) << "keep";
    fs::create_symlink(path("target"), path("drive/CONFIG.INI"));
    fs::create_symlink(path("target"), path("drive/clock.txt"));
    fs::create_directory_symlink(path("elsewhere"), path("drive-link"));
    size_t printed = engine_->console().size();
    EXPECT_EQ(get("cmd=5&drive=" + path("drive")), ok_answer);
    EXPECT_EQ(get("cmd=5&drive=" + path("drive-link")), error_answer);
    EXPECT_EQ(engine_->printed_since(printed), "@ error write file " + path("drive/clock.txt") +
                                                   "\n@ error write file " + path("drive-link/clock.txt") +
                                                   "\n@ error write file " + path("drive-link/CONFIG.INI") +
                                                   "\n");
    EXPECT_EQ(read_text_file(path("target")), "keep");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path("drive/CONFIG.INI"))));
    EXPECT_TRUE(fs::is_symlink(path("drive/clock.txt")));
    EXPECT_TRUE(fs::is_empty(path("elsewhere")));
}

// Root, the engine's own user and the invoking user (SUDO_UID) are served; any other local user
// is refused with the guard's 403 and one console line.
TEST(WhoMayConnect, RootTheEngineUserAndTheInvokingUserOnly) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the other local users are clients run with setuid";
    const std::string version = "/tuning/device?id=-1&version=";
    TempDir as_nobody_dir, invoked_dir;
    chmod(as_nobody_dir.path().c_str(), 0777);
    EngineProcess as_nobody(as_nobody_dir, "setpriv --reuid=65534 --regid=65534 --clear-groups");
    EngineProcess invoked(invoked_dir, "env SUDO_UID=65533");
    ASSERT_NE(as_nobody.port(), 0) << as_nobody.console();
    ASSERT_NE(invoked.port(), 0) << invoked.console();
    const std::tuple<EngineProcess*, uid_t, bool> cases[] = {
        // engine, client user, served
        {&as_nobody, 0, true}, {&as_nobody, 65534, true}, {&as_nobody, 65533, false},
        {&invoked, 0, true},   {&invoked, 65533, true},   {&invoked, 65534, false},
    };
    for (const auto& [engine, uid, served] : cases) {
        size_t printed = engine->console().size();
        std::string answer = exchange_as(uid, engine->port(), local_get(engine->port(), version));
        EXPECT_EQ(answer, served ? version_answer : forbidden_answer) << uid;
        EXPECT_EQ(engine->printed_since(printed),
                  served ? "" : "@ Request refused, connection of local user " + std::to_string(uid) + "\n")
            << uid;
    }
    as_nobody.exit_cleanly();
    invoked.exit_cleanly();
}

// The history belongs to the invoking user: history/ 0711 of root, history/<SUDO_UID> 0700 and each
// snapshot 0600 of that user and SUDO_GID. It keeps 500 snapshots (the oldest goes, one console line),
// writes none equal to the newest, and serves only what it lists: a path, a link, a FIFO or an
// unknown name is refused unopened (a FIFO opened would hold the engine), so is a write without a
// device. A history/ that is a link is not followed: the engine works on without history.
TEST(History, PrivateBoundedAndServesOnlyItsOwnSnapshots) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the folders are given to the invoking user";
    TempDir dir;
    const std::string mine = dir.path() + "/history/1000";
    const std::string invoked = "env SUDO_UID=1000 SUDO_GID=1001";
    EngineProcess(dir, invoked).exit_cleanly();  // makes the folders
    Strings names;
    for (int i = 0; i < 500; ++i) {
        char name[64];
        snprintf(name, sizeof name, "20200101-00%02d%02d-000-read-MS02.ini", i / 60, i % 60);
        names.push_back(name);
        std::ofstream(mine + "/" + name) << "Vorlane-x\r\nfe\r\nzn1-" << i << "\r\n";
    }
    std::ofstream(dir.path() + "/secret") << "secret";
    const std::string link = "20990101-000000-000-read.ini", fifo = "20990101-000000-001-read.ini";
    fs::create_symlink(dir.path() + "/secret", mine + "/" + link);
    ASSERT_EQ(mkfifo((mine + "/" + fifo).c_str(), 0600), 0);
    fs::create_directories(dir.path() + "/devs");
    std::ofstream(dir.path() + "/devs/MS02.ini") << "Vorlane-MS02\r\nfe\r\ntd-MS02\r\nzn1-5\r\n";
    EngineProcess engine(dir, invoked);
    ASSERT_NE(engine.port(), 0) << engine.console();
    auto listed = [&] {
        std::string list = body_of(engine.get("history"));
        Strings out;
        for (size_t at = 0; (at = list.find("{\"name\":\"", at)) != std::string::npos; at += 9)
            out.push_back(list.substr(at + 9, list.find('"', at + 9) - at - 9));
        return out;
    };
    EXPECT_EQ(listed(), Strings(names.rbegin(), names.rend()));
    ASSERT_EQ(engine.get("cmd=1&devtype=MS02"), ok_answer);
    ASSERT_EQ(engine.get("cmd=1&devtype=MS02"), ok_answer);  // the same image: no snapshot again
    Strings now = listed();
    ASSERT_EQ(now.size(), 500u);
    EXPECT_TRUE(std::regex_match(now[0], std::regex(R"(\d{8}-\d{6}-\d{3}-model-MS02\.ini)"))) << now[0];
    EXPECT_EQ(now.back(), names[1]);
    EXPECT_FALSE(fs::exists(mine + "/" + names[0]));
    EXPECT_TRUE(engine.printed("History: " + names[0] +
                               " removed: the folder keeps at most 500 snapshots and 64 MiB\n"));

    // folder or file, mode, owner, group
    const std::tuple<std::string, mode_t, uid_t, gid_t> owners[] = {{dir.path() + "/history", 0711, 0, 0},
                                                                    {mine, 0700, 1000, 1001},
                                                                    {mine + "/" + now[0], 0600, 1000, 1001}};
    for (const auto& [path, mode, uid, gid] : owners) {
        struct stat about {};
        ASSERT_EQ(lstat(path.c_str(), &about), 0) << path;
        EXPECT_EQ(about.st_mode & 07777, mode) << path;
        EXPECT_EQ(about.st_uid, uid) << path;
        EXPECT_EQ(about.st_gid, gid) << path;
    }

    const std::string no_such = json_answer(R"({"result":"error","description":"Нет такого снимка"})");
    const std::string image = engine.get("configstate=");
    for (const std::string& name :
         {std::string("../x"), std::string("/etc/passwd"), "../../" + link, link, fifo, names[0]})
        for (const char* query : {"historyconfig=", "historyfile=", "historywrite="})
            EXPECT_EQ(engine.get(query + name), no_such) << query << name;
    EXPECT_TRUE(engine.printed("History: no snapshot /etc/passwd\n"));
    EXPECT_EQ(engine.get("historywrite=" + now[0]), error_answer);  // no panel connected
    EXPECT_EQ(engine.get("configstate="), image);
    EXPECT_EQ(read_text_file(dir.path() + "/secret"), "secret");
    engine.exit_cleanly();

    TempDir linked;
    fs::create_directories(linked.path() + "/elsewhere");
    fs::create_directory_symlink(linked.path() + "/elsewhere", linked.path() + "/history");
    fs::create_directories(linked.path() + "/devs");
    std::ofstream(linked.path() + "/devs/MS02.ini") << "Vorlane-MS02\r\nfe\r\ntd-MS02\r\nzn1-5\r\n";
    EngineProcess unused(linked, "env SUDO_UID=1000");
    ASSERT_NE(unused.port(), 0) << unused.console();
    EXPECT_TRUE(
        unused.printed("History: history is a link or not a folder: the engine works on without history\n"));
    EXPECT_EQ(unused.get("cmd=1&devtype=MS02"), ok_answer);
    EXPECT_EQ(unused.get("history"), json_answer(R"({"result":{"history":[]}})"));
    unused.exit_cleanly();
    EXPECT_TRUE(fs::is_empty(linked.path() + "/elsewhere"));
}

// Every restart binds the port the first start took, although the connections it served wait in
// TIME_WAIT there; no su runs unless the engine is root and knows the invoking user's name. A port
// where another program listens is skipped for the next one.
TEST(Restarts, TenInARowTakeTheSamePortAndABusyOneIsSkipped) {
    std::vector<int> ports;
    for (int i = 0; i < 10; ++i) {
        TempDir dir;
        EngineProcess engine(dir, i == 0 ? "env SUDO_USER=tester" : "");
        ASSERT_NE(engine.port(), 0) << engine.console();
        ports.push_back(engine.port());
        // A client that closes normally: the engine closed first, so its end waits in TIME_WAIT.
        Fd plain(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address = loopback(engine.port());
        ASSERT_EQ(connect(plain.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        send_text(plain, local_get(engine.port(), api + "version="));
        EXPECT_EQ(read_to_close(plain), version_answer);
        engine.exit_cleanly();
        std::string browser = "x-www-browser http://localhost:" + std::to_string(engine.port());
        EXPECT_NE(
            engine.console().find("su " + std::string(i == 0 ? "tester" : "") + " -c \"" + browser + "\"\n"),
            std::string::npos);
        bool su_runs = i == 0 && geteuid() == 0;
        if (su_runs) wait_for([&] { return !dir.su_log().empty(); }, 2);
        EXPECT_EQ(dir.su_log(), su_runs ? "tester\n-c\n" + browser + "\n" : "") << i;
    }
    EXPECT_EQ(ports, std::vector<int>(10, ports[0]));

    int taken = 0, next = 0;
    Fd blocker = bind_first_free(ports[0], taken);
    ASSERT_EQ(listen(blocker.get(), 1), 0);
    bind_first_free(taken + 1, next);
    TempDir dir;
    EngineProcess engine(dir);
    EXPECT_EQ(engine.port(), next);
    std::string binds;
    for (int port = 8080; port <= next; ++port) binds += "bind port " + std::to_string(port) + "...\n";
    EXPECT_NE(engine.console().find("\n" + binds + "su "), std::string::npos) << engine.console();
    engine.exit_cleanly();
}

// An engine ends by itself 15 s after the last connection, unless a firmware upload still goes on:
// the upload outlives the browser that sent it, and its engine ends 15 s after the last block,
// closing the panel's port, with status 0.
TEST(IdleEnd, FifteenSecondsAfterTheLastConnectionOrTheLastFirmwareBlock) {
    TempDir idle_dir;
    EngineProcess idle(idle_dir);
    ASSERT_NE(idle.port(), 0) << idle.console();
    // Meanwhile another local user floods the idle engine with connections: they never take a
    // browser's place, never keep the engine running, and their refusals are printed once in 10 s.
    std::unique_ptr<AsOtherUser> flooding;
    if (geteuid() == 0)
        flooding = std::make_unique<AsOtherUser>([&] { flood(idle.port()); });
    else
        std::cout << "Not checked: a flood of another user's connections (needs root to be another user)\n";
    auto flood_start = Clock::now();
    for (int i = 0; i < 100; ++i) {  // a browser that sends 20 ms after connecting loses no request
        Fd browser = connect_to(idle.port());
        usleep(20000);
        send_text(browser, local_get(idle.port(), api + "version="));
        ASSERT_EQ(read_to_close(browser, 5), version_answer) << i;
    }
    auto last = Clock::now();
    // Receipts 500 ms late make 32 blocks last more than the 15 s the engine waits for a browser.
    PanelSim panel({.make_link = false, .telemetry_ms = 300, .block_ack_delay_ms = 500});
    ASSERT_TRUE(panel.start()) << panel.error();
    TempDir dir;
    EngineProcess engine(dir);
    ASSERT_NE(engine.port(), 0) << engine.console();
    ASSERT_EQ(engine.get("cmd=11&com=" + panel.slave_path()), ok_answer);
    const std::string image(31 * 256, 'f');  // 31 blocks and the end mark
    std::string post = "POST " + api + "cmd=71 HTTP/1.1\r\nHost: localhost\r\nContent-Length: " +
                       std::to_string(image.size()) + "\r\n\r\n" + image;
    panel.forget_received();
    EXPECT_EQ(engine.request(post), ok_answer);
    auto posted = Clock::now();

    ASSERT_NO_FATAL_FAILURE(idle.expect_clean_end(19));
    EXPECT_GT(seconds_since(last), 14.5);
    EXPECT_LT(seconds_since(last), 17.5);
    EXPECT_TRUE(idle.console().ends_with("close listen socket\n")) << idle.console();
    if (flooding) {
        std::string console = idle.console();
        size_t refusals = 0;
        for (size_t at = 0; (at = console.find("Request refused", at)) != std::string::npos; ++at) ++refusals;
        // A client gone before the engine asks who it was is refused as an unknown owner, a second
        // user as far as the log goes.
        EXPECT_GE(refusals, 1u);
        EXPECT_LE(refusals, 2 * (static_cast<size_t>(seconds_since(flood_start) / 10) + 1)) << console;
        EXPECT_NE(console.find(" more refused before this)\n"), std::string::npos) << console;
        flooding.reset();
    }
    ASSERT_NO_FATAL_FAILURE(engine.expect_clean_end(45));
    auto ended = Clock::now();
    EXPECT_NE(engine.console().find("Close device \n", engine.console().rfind("Open device")),
              std::string::npos)
        << engine.console();
    std::vector<SimFrame> blocks;
    for (const SimFrame& frame : panel.received())
        if (frame.type() == 'B') blocks.push_back(frame);
    ASSERT_EQ(blocks.size(), 32u);
    EXPECT_EQ(blocks.back().payload(), std::string("\x04\x1f", 2));  // the end mark
    EXPECT_GT(std::chrono::duration<double>(blocks.back().when - posted).count(), 15);
    double after_last = std::chrono::duration<double>(ended - blocks.back().when).count();
    EXPECT_GT(after_last, 14.5);
    EXPECT_LT(after_last, 17.5);
}

// The engine holds its port on 127.0.0.1 and [::1]: a port where another user listens on [::1]
// is skipped (a browser resolving localhost to ::1 would reach that program), and while the engine
// runs nobody can bind [::1] on its port. Two engines started at once take two ports.
TEST(Listening, BothLoopbackAddressesOrTheNextPort) {
    if (!ipv6_loopback_available()) GTEST_SKIP() << "no IPv6 loopback on this machine";
    int free_port = 0;
    Fd probe = bind_first_free(8080, free_port);
    probe.reset();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Fd ready_read(ends[0]), ready_write(ends[1]);
    AsOtherUser other([&] {
        Fd listener = bind_ipv6_loopback(free_port, true);
        if (listener.get() < 0 || write(ready_write.get(), "1", 1) != 1) return;
        pause();
    });
    ready_write.reset();
    char ready = 0;
    ASSERT_EQ(read(ready_read.get(), &ready, 1), 1) << "no listener on [::1]:" << free_port;
    TempDir dir;
    EngineProcess engine(dir);
    ASSERT_GT(engine.port(), free_port) << engine.console();
    EXPECT_NE(engine.console().find("bind port " + std::to_string(free_port) + "...\n"), std::string::npos);
    EXPECT_LT(bind_ipv6_loopback(engine.port(), false).get(), 0);
    Fd six(socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_storage address = loopback_address(AF_INET6, engine.port());
    ASSERT_EQ(connect(six.get(), reinterpret_cast<sockaddr*>(&address), sizeof(sockaddr_in6)), 0);
    send_text(six, local_get(engine.port(), api + "version="));
    EXPECT_EQ(read_to_close(six), version_answer);
    engine.exit_cleanly();

    TempDir first_dir, second_dir;
    std::unique_ptr<EngineProcess> first, second;
    std::thread starter([&] { first = std::make_unique<EngineProcess>(first_dir); });
    second = std::make_unique<EngineProcess>(second_dir);
    starter.join();
    ASSERT_NE(first->port(), 0) << first->console();
    ASSERT_NE(second->port(), 0) << second->console();
    EXPECT_NE(first->port(), second->port());
    first->exit_cleanly();
    second->exit_cleanly();
}

// Without IPv6 the engine says so once and listens on 127.0.0.1 alone. Checked in a network namespace
// whose loopback has no IPv6 address: the test runs itself there.
TEST(Listening, WithoutIpv6TheIpv4LoopbackAlone) {
    if (getenv("VORCORE_TEST_NO_IPV6") == nullptr) {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to make a network namespace without IPv6";
        pid_t child = fork();
        if (child == 0) {
            if (!enter_network_without_ipv6()) _exit(3);
            setenv("VORCORE_TEST_NO_IPV6", "1", 1);
            execl("/proc/self/exe", "self", "--gtest_filter=Listening.WithoutIpv6TheIpv4LoopbackAlone",
                  nullptr);
            _exit(4);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        return;
    }
    ASSERT_FALSE(ipv6_loopback_available());
    TempDir dir;
    EngineProcess engine(dir);
    ASSERT_NE(engine.port(), 0) << engine.console();
    EXPECT_NE(
        engine.console().find("No IPv6 loopback: the engine listens on 127.0.0.1 only\nbind port 8080...\n"),
        std::string::npos)
        << engine.console();
    engine.exit_cleanly();
}
