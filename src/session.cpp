// The two modes: setup (a code turns into the credential files) and login
// (with the one-time upgrade of old-style credentials), plus the command
// lines of the SSH client and the GridFTP workers.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "debug.h"
#include "diag.h"
#include "file.h"
#include "relaytool.h"
#include "sign.h"
#include "strutil.h"

void RelayTool::setFTPPort(int port) {
    HV_PRECONDITION(port >= -1, "src/relaytool", 69);
    m_ftp_port = port;
}

std::string RelayTool::getVersionArgs() {
    return hvlib::str_sprintf(
        "appver=%s ostype=%s osver=%s", hvlib::url_encode(m_config.app_version).c_str(),
        hvlib::url_encode(m_config.os).c_str(), hvlib::url_encode(m_config.os_version).c_str());
}

std::string RelayTool::getSignature(const std::string& challenge) {
    return sign_rsa_sha256(hvlib::read_file_contents(getClientKeyPath()), challenge);
}

void RelayTool::runSetup(std::string code) {
    launchSSH(getSSHArgs(-1));
    queueSSHInput(hvlib::str_sprintf("msg=SETUP_C code=%s %s\n", hvlib::url_encode(code).c_str(),
                                     getVersionArgs().c_str()));
    expectServerMessage("SETUP_S");
    runReactor();
}

void RelayTool::runLogin() {
    if (m_ftp_port == 0) startInetd();
    fprintf(stderr, "Connecting to server: %s:%d\n", m_config.relay_server.c_str(),
            m_config.relay_port);
    launchSSH(getSSHArgs(m_ftp_port));
    // Checked only after the tunnel is up, and only the marker and the
    // old-style key decide; a missing id or key fails when it is read.
    if (hvlib::file_readable(getV2DonePath())) {
        sendLoginMessage();
        runReactor();
    } else if (hvlib::file_readable(getV1FTPKeyPath())) {
        sendUpgradeMessage();
        runReactor();
    } else {
        hvlib::fatal_error("No HVN credentials found");
    }
}

void RelayTool::sendLoginMessage() {
    const char* operation = m_ftp_port == -1 ? "PAUSED" : "FORWARD";
    queueSSHInput(hvlib::str_sprintf("msg=LOGIN_C id=%s operation=%s protocol_version=%d %s\n",
                                     getClientID().c_str(), operation, m_config.protocol_version,
                                     getVersionArgs().c_str()));
    expectServerMessage("CHALLENGE_S");
}

void RelayTool::sendUpgradeMessage() {
    fprintf(stderr, "Trying to upgrade to V2 creds\n");
    std::string cert = hvlib::read_file_contents(getV1FTPCertPath());
    std::string key = hvlib::read_file_contents(getV1FTPKeyPath());
    queueSSHInput(hvlib::str_sprintf("msg=UPGRADE_C ftp_cert=%s ftp_key=%s %s\n",
                                     hvlib::url_encode(cert).c_str(),
                                     hvlib::url_encode(key).c_str(), getVersionArgs().c_str()));
    expectServerMessage("UPGRADE_S");
}

// Writes the credential set of a SETUP_S or UPGRADE_S. Each key is read just
// before its file is written and the marker comes last, so a fault part-way
// never leaves a marker without every file before it.
void RelayTool::doSetup(const hvlib::KeyValues& record) {
    relaytool_debug("doSetup(): writing files");
    // A marker left by an earlier set must not vouch for a set that is only
    // partly rewritten: it comes back, last, once every file is in place.
    remove(getV2DonePath().c_str());
    hvlib::create_private_file_with_contents(getClientIDPath(), record["id"] + "\n");
    hvlib::create_private_file_with_contents(getClientKeyPath(),
                                             hvlib::url_decode(record["secret"]));
    hvlib::create_private_file_with_contents(getFTPCertPath(),
                                             hvlib::url_decode(record["ftp_cert"]));
    hvlib::create_private_file_with_contents(getFTPKeyPath(), hvlib::url_decode(record["ftp_key"]));
    hvlib::create_private_file_with_contents(
        getFTPGridmapPath(),
        hvlib::str_sprintf("\"%s\" %s\n", hvlib::url_decode(record["ftp_user_dn"]).c_str(),
                           m_config.user.c_str()));
    hvlib::create_private_file_with_contents(
        getRelayConfigPath(), hvlib::str_sprintf("SERVER=%s\n", m_config.relay_server.c_str()) +
                                  hvlib::str_sprintf("SERVER_PORT=%d\n", m_config.relay_port));
    hvlib::create_private_file_with_contents(getV2DonePath(),
                                             "V2 Credentials Done.  Do not remove this file");
    remove(hvlib::join_path(m_config.config_dir, "anon.cert").c_str());
    remove(hvlib::join_path(m_config.config_dir, "anon.key").c_str());
    remove(getV1FTPCertPath().c_str());
    remove(getV1FTPKeyPath().c_str());
    fprintf(stderr, "HVN V2 setup complete\n");
}

hvlib::StringList RelayTool::getSSHArgs(int port) {
    // clang-format off
    hvlib::StringList args = {
        m_config.ssh_path, "ssh",
        "-F", "/dev/null",
        "-o", "CheckHostIP no",
        "-o", "ServerAliveInterval 15",
        "-o", "ServerAliveCountMax 8",
        "-o", "StrictHostKeyChecking yes",
        "-o", hvlib::str_sprintf("UserKnownHostsFile \"%s\"", getSSHKnownHostsPath().c_str()),
        "-o", "IdentitiesOnly yes",
        "-o", "IdentityAgent none",
        "-o", "IPQoS lowdelay",
        "-T",
        "-l", "x_relay2",
        "-i", getSSHIdentityPath(),
    };
    // clang-format on
    if (getenv("HVN_SSH_DEBUG") != nullptr) args.push_back("-v");
    if (port != -1) {
        args.push_back("-R");
        args.push_back(hvlib::str_sprintf("0:127.0.0.1:%d", port));
    }
    args.push_back("-p");
    args.push_back(hvlib::str_sprintf("%d", m_config.relay_port));
    args.push_back(m_config.relay_server);
    return args;
}

hvlib::StringList RelayTool::getGridFTPArgs() {
    return {m_config.gridftp_path, "varnel-gridftp-server", "-i", "-c", getFTPConfigPath()};
}
