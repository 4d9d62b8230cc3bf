// The relay conversation as the server drives it: RelayTool::SSHReceivedOut
// fed with the server's output cut into chunks, with line assembly,
// heartbeats, dispatch, the handlers and the credential files they write.
//
// Input: byte 0 is a control byte, the rest is what the server sends.
//   bits 0-1  the message expected first: SETUP_S (setup), CHALLENGE_S
//             (login), UPGRADE_S (upgrade), or none (already logged in)
//   bit 2     every chunk also goes through the ssh and ftp error-output
//             line logging
//   bit 3     debug logging on (into /dev/null)
//   bits 4-7  chunking: 0 = cut at every 0xFF byte (the byte is dropped),
//             s > 0 = pseudo-random lengths 1..4s; odd s logs in paused
//             (HVN_FTP_PORT=-1)
// Seeds are readable: '0' starts a setup, '1' a login, '2' an upgrade, '3'
// the logged-in state, '4'..'7' the same with error-output logging; the
// control bytes 0x00..0x03 do the same with chunks cut where the seed says.
//
// Properties, beyond "no sanitizer report":
//   - every end of the process is exit status 1 (server error, protocol
//     fault, missing key), never a failed precondition (abort), until the
//     ssh connection ends; then the status is 0 exactly after a completed
//     setup;
//   - the completion marker v2done.txt exists only with every credential
//     file written before it, and is 45 bytes; old-style files go only once
//     it is there;
//   - requests sent are well-formed lines: CHALLENGE_C signs exactly one
//     token, LOGIN_C carries the configured suffix.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "debug.h"
#include "file.h"
#include "fuzz_protocol.h"
#include "fuzz_support.h"
#include "relaytool.h"
#include "strutil.h"

namespace {

std::string g_root;         // temporary directory of this fuzzer process
std::string g_config_dir;   // HVN_CONFIG_DIR
std::string g_etc_dir;      // HVN_GLOBAL_ETC_DIR
FILE* g_devnull = nullptr;  // the debug log when bit 3 is set

const char* const kExpected[4] = {"SETUP_S", "CHALLENGE_S", "UPGRADE_S", ""};
enum State { kSetup = 0, kLogin = 1, kUpgrade = 2, kLoggedIn = 3 };

// Every file the tool writes, reads or removes in the configuration directory.
const char* const kConfigFiles[] = {"relay-anonymous-key.pem",
                                    "relay-known-hosts.txt",
                                    "client-id.txt",
                                    "client-key.pem",
                                    "ftp-cert2.pem",
                                    "ftp-key2.pem",
                                    "gridmap",
                                    "config",
                                    "v2done.txt",
                                    "ltacert.pem",
                                    "ltakey.pem",
                                    "anon.cert",
                                    "anon.key"};
// Written by doSetup before the marker.
const char* const kCredentialFiles[] = {"client-id.txt", "client-key.pem", "ftp-cert2.pem",
                                        "ftp-key2.pem",  "gridmap",        "config"};
// Removed by doSetup after the marker.
const char* const kOldFiles[] = {"ltacert.pem", "ltakey.pem", "anon.cert", "anon.key"};

const char kLoginSuffix[] =
    " protocol_version=2 appver=1.0%20beta ostype=Linux osver=Debian%2012\n";

std::string config_path(const char* name) { return g_config_dir + "/" + name; }
bool exists(const char* name) { return access(config_path(name).c_str(), F_OK) == 0; }
off_t file_size(const char* name) {
    struct stat st {};
    return stat(config_path(name).c_str(), &st) == 0 ? st.st_size : -1;
}

void remove_root() {
    std::error_code ignored;
    std::filesystem::remove_all(g_root, ignored);
}

// The configuration directory as each starting state has it.
void prepare_config_dir(State state) {
    for (const char* name : kConfigFiles) unlink(config_path(name).c_str());
    if (state == kLogin) {
        hvlib::create_private_file_with_contents(config_path("client-key.pem"), "key\n");
        hvlib::create_private_file_with_contents(config_path("client-id.txt"), "old-id\n");
    }
    if (state == kSetup || state == kUpgrade) {
        for (const char* name : kOldFiles)
            hvlib::create_private_file_with_contents(config_path(name), "old\n");
    }
}

bool is_lower_hex(const std::string& s) {
    return s.find_first_not_of("0123456789abcdef") == std::string::npos && s.size() % 2 == 0;
}

void check_requests(const std::string& input) {
    for (const std::string& request : g_queued_input) {
        FUZZ_CHECK(!request.empty() && request.back() == '\n', input);
        const std::string prefix_challenge = "msg=CHALLENGE_C sig=";
        const std::string prefix_login = "msg=LOGIN_C id=";
        if (request.compare(0, prefix_challenge.size(), prefix_challenge) == 0) {
            const std::string sig = request.substr(prefix_challenge.size(),
                                                   request.size() - prefix_challenge.size() - 1);
            FUZZ_CHECK(is_lower_hex(sig), input);
            // What was signed is one token's value: no space, no zero byte.
            for (size_t i = 0; i < sig.size(); i += 2) {
                const std::string byte = sig.substr(i, 2);
                FUZZ_CHECK(byte != "20" && byte != "00", input);
            }
        } else if (request.compare(0, prefix_login.size(), prefix_login) == 0) {
            const std::string suffix = kLoginSuffix;
            FUZZ_CHECK(
                request.size() > suffix.size() &&
                    request.compare(request.size() - suffix.size(), suffix.size(), suffix) == 0,
                input);
        } else {
            fuzz_fail("unexpected request queued", request);
        }
    }
}

void check_files(State state, const std::string& input) {
    if (exists("v2done.txt")) {
        for (const char* name : kCredentialFiles) FUZZ_CHECK(exists(name), input);
        FUZZ_CHECK(file_size("v2done.txt") == 45, input);
        for (const char* name : kOldFiles) FUZZ_CHECK(!exists(name), input);
    } else if (state == kSetup || state == kUpgrade) {
        for (const char* name : kOldFiles) FUZZ_CHECK(exists(name), input);
    }
}

uint32_t next_random(uint32_t& x) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

// The server's output as the event loop would pass it on, chunk by chunk.
hvlib::StringList cut_into_chunks(const std::string& stream, uint32_t chunking) {
    hvlib::StringList chunks;
    if (chunking == 0) {
        // By hand: the stream may hold zero bytes, which split() stops at.
        size_t start = 0;
        for (size_t cut; (cut = stream.find('\xff', start)) != std::string::npos; start = cut + 1) {
            chunks.push_back(stream.substr(start, cut - start));
        }
        chunks.push_back(stream.substr(start));
        return chunks;
    }
    uint32_t random = 0x9e3779b9u * chunking;
    for (size_t pos = 0; pos < stream.size();) {
        chunks.push_back(stream.substr(pos, 1 + next_random(random) % (4 * chunking)));
        pos += chunks.back().size();
    }
    return chunks;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // fuzz.sh points RELAYTOOL_FUZZ_TMPDIR at its own work directory, which
    // it removes even when a crash skips this process's clean-up.
    const char* base = getenv("RELAYTOOL_FUZZ_TMPDIR");
    if (base == nullptr) base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = std::string(base) + "/relaytool-fuzz-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    g_root = pattern;
    g_config_dir = g_root + "/config";
    g_etc_dir = g_root + "/etc";
    if (mkdir(g_config_dir.c_str(), 0700) != 0 || mkdir(g_etc_dir.c_str(), 0700) != 0) {
        perror("mkdir");
        abort();
    }
    atexit(remove_root);
    hvlib::create_private_file_with_contents(g_etc_dir + "/relay-anonymous.key", "anonymous key\n");
    g_devnull = fopen("/dev/null", "w");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string input(reinterpret_cast<const char*>(data), size);
    const uint8_t control = data[0];
    const State state = static_cast<State>(control & 3);
    const bool log_error_output = (control & 4) != 0;
    const uint32_t chunking = control >> 4;
    const std::string stream = input.substr(1);

    g_debug_file = (control & 8) ? g_devnull : nullptr;
    g_queued_input.clear();
    prepare_config_dir(state);

    RelayConfig config;
    config.os = "Linux";
    config.os_version = "Debian 12";
    config.app_version = "1.0 beta";
    config.relay_server = "relay.example";
    config.relay_port = 2223;
    config.protocol_version = 2;
    config.ssh_path = "/nonexistent/ssh";
    config.gridftp_path = "/nonexistent/gridftp";
    config.pdeath_path = "/nonexistent/pdeath";
    config.config_dir = g_config_dir;
    config.global_etc_dir = g_etc_dir;
    config.user = "alice";

    bool stream_done = false;
    try {
        RelayTool tool(config);
        tool.setFTPPort((chunking & 1) ? -1 : 2811);
        tool.expectServerMessage(kExpected[state]);
        int chunk_index = 0;
        for (const std::string& chunk : cut_into_chunks(stream, chunking)) {
            if (log_error_output) {
                tool.SSHReceivedErr(chunk);
                tool.FTPReceivedStderr(chunk);
            }
            tool.SSHReceivedOut(chunk);
            tool.onStatusUpdate(chunk_index++ % 3);
        }
        tool.SSHReceivedOut("");  // end of file, as the event loop passes it on
        stream_done = true;
        tool.SSHExited(0);
    } catch (const FuzzEnd& end) {
        if (end.kind == FuzzEnd::Abort)
            fuzz_fail("failed precondition on the server's output", input);
        if (stream_done) {
            // The connection ended: success exactly after a completed setup.
            const bool setup_complete = state == kSetup && exists("v2done.txt");
            FUZZ_CHECK(end.status == (setup_complete ? 0 : 1), input);
        } else {
            FUZZ_CHECK(end.status == 1, input);
        }
    }
    check_requests(input);
    check_files(state, input);
    // Freed here, so that an input's allocations balance and libFuzzer's
    // leak check needs no second run.
    hvlib::StringList().swap(g_queued_input);
    return 0;
}
