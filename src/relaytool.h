// The relay tool's controller: configuration, credential files, the relay
// conversation and status reporting. Its POSIX half (event loop, child
// processes, listener) is RelayToolImpl; the members that touch the platform
// are defined beside it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "keyvalues.h"
#include "strutil.h"

// Every setting, read once from the environment at start-up.
struct RelayConfig {
    std::string os;
    std::string os_version;
    std::string app_version;
    std::string relay_server;
    int32_t relay_port = 2223;
    int32_t protocol_version = 2;
    std::string ssh_path;
    std::string gridftp_path;
    std::string pdeath_path;
    std::string config_dir;
    std::string global_etc_dir;
    std::string user;
};

// The relay servers' public host key lines, fixed at build time.
extern const char* const RELAY_KEY;
extern const char* const RELAY_BACKUP_KEY;

class RelayToolImpl;

namespace hvlib {
// Joins a directory and a file name with one "/"; used for every path.
std::string join_path(std::string dir, std::string name);
}  // namespace hvlib

class RelayTool {
public:
    explicit RelayTool(RelayConfig config);
    ~RelayTool();
    RelayTool(const RelayTool&) = delete;
    RelayTool& operator=(const RelayTool&) = delete;

    // Modes; neither returns (the process ends inside the event loop).
    void runSetup(std::string code);
    void runLogin();
    void setFTPPort(int port);

    // Credential and configuration file paths.
    std::string getGlobalSSHIdentityPath();
    std::string getSSHIdentityPath();
    std::string getSSHKnownHostsPath();
    std::string getClientIDPath();
    std::string getClientKeyPath();
    std::string getFTPCertPath();
    std::string getFTPKeyPath();
    std::string getFTPGridmapPath();
    std::string getRelayConfigPath();
    std::string getV2DonePath();
    std::string getV1FTPCertPath();
    std::string getV1FTPKeyPath();
    std::string getFTPConfigPath();
    std::string getClientID();

    // The relay conversation.
    void sendLoginMessage();
    void sendUpgradeMessage();
    std::string getVersionArgs();
    std::string getSignature(const std::string& challenge);
    void doSetup(const hvlib::KeyValues& record);
    void serverMessage(const std::string& message);
    void expectServerMessage(const std::string& name);

    // Argument vectors: program, argv[0], arguments.
    hvlib::StringList getSSHArgs(int port);
    hvlib::StringList getGridFTPArgs();

    // Callbacks of the event loop.
    void SSHReceivedOut(const std::string& chunk);
    void SSHReceivedErr(const std::string& chunk);
    void FTPReceivedStderr(const std::string& chunk);
    void onStatusUpdate(int nr_ftp_active);
    [[noreturn]] void SSHExited(int code);

    // Platform members (defined with RelayToolImpl).
    void initPlatform();
    void runReactor();
    void queueSSHInput(const std::string& data);
    void launchSSH(const hvlib::StringList& args);
    void startInetd();

private:
    void installSSHFiles();

    RelayConfig m_config;
    std::string m_ssh_out_buffer;
    std::string m_ssh_err_buffer;
    std::string m_ftp_err_buffer;
    std::string m_expected_message;
    int32_t m_ftp_port = -1;
    bool m_setup_done = false;
    bool m_logged_in = false;
    std::string m_last_status;
    RelayToolImpl* m_impl = nullptr;
};
