// RelayTool construction, the credential file layout and the two SSH files
// installed at every start.
#include "relaytool.h"

#include "debug.h"
#include "file.h"

namespace hvlib {

// Always dir + "/" + name: directories are expected without a trailing "/".
std::string join_path(std::string dir, std::string name) { return dir + "/" + name; }

}  // namespace hvlib

using hvlib::join_path;

RelayTool::RelayTool(RelayConfig config) : m_config(std::move(config)) {
    relaytool_debug("RelayTool()\n");
    m_ftp_port = -1;
    m_setup_done = false;
    m_logged_in = false;
    initPlatform();
    installSSHFiles();
}

// m_impl is deliberately kept: it owns descriptors and children for the
// life of the process.
RelayTool::~RelayTool() = default;

void RelayTool::installSSHFiles() {
    hvlib::create_private_file_with_contents(getSSHIdentityPath(),
                                             hvlib::read_file_contents(getGlobalSSHIdentityPath()));
    // The host is written bare, without the port, on purpose.
    std::string known_hosts =
        hvlib::str_sprintf("%s %s\n", m_config.relay_server.c_str(), RELAY_KEY) +
        hvlib::str_sprintf("%s %s\n", m_config.relay_server.c_str(), RELAY_BACKUP_KEY);
    hvlib::create_private_file_with_contents(getSSHKnownHostsPath(), known_hosts);
}

std::string RelayTool::getGlobalSSHIdentityPath() {
    return join_path(m_config.global_etc_dir, "relay-anonymous.key");
}
std::string RelayTool::getSSHIdentityPath() {
    return join_path(m_config.config_dir, "relay-anonymous-key.pem");
}
std::string RelayTool::getSSHKnownHostsPath() {
    return join_path(m_config.config_dir, "relay-known-hosts.txt");
}
std::string RelayTool::getClientIDPath() { return join_path(m_config.config_dir, "client-id.txt"); }
std::string RelayTool::getClientKeyPath() {
    return join_path(m_config.config_dir, "client-key.pem");
}
std::string RelayTool::getFTPCertPath() { return join_path(m_config.config_dir, "ftp-cert2.pem"); }
std::string RelayTool::getFTPKeyPath() { return join_path(m_config.config_dir, "ftp-key2.pem"); }
std::string RelayTool::getFTPGridmapPath() { return join_path(m_config.config_dir, "gridmap"); }
std::string RelayTool::getRelayConfigPath() { return join_path(m_config.config_dir, "config"); }
std::string RelayTool::getV2DonePath() { return join_path(m_config.config_dir, "v2done.txt"); }
std::string RelayTool::getV1FTPCertPath() { return join_path(m_config.config_dir, "ltacert.pem"); }
std::string RelayTool::getV1FTPKeyPath() { return join_path(m_config.config_dir, "ltakey.pem"); }
std::string RelayTool::getFTPConfigPath() { return join_path(m_config.config_dir, "gridftp.conf"); }

std::string RelayTool::getClientID() {
    return hvlib::strip(hvlib::read_file_contents(getClientIDPath()));
}
