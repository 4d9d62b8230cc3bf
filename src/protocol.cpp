// The relay conversation: framing of the server's output, dispatch against
// the one expected message, error-output logging, and what the parent sees
// (status lines and the exit status).
#include <cstdio>
#include <cstdlib>

#include "debug.h"
#include "diag.h"
#include "relaytool.h"
#include "strutil.h"

namespace {

// Appends a chunk of a child's error output to its buffer and, once the
// buffered text ends exactly at a line end, writes every line to standard
// error as "[<who> stderr] <line>". A chunk that stops mid-line holds back the
// complete lines before it as well.
void log_error_lines(std::string& buffer, const std::string& chunk, const char* who,
                     int precondition_line) {
    buffer += chunk;
    if (!hvlib::endswith(buffer.c_str(), "\n")) return;
    hvlib::StringList lines = hvlib::split(buffer, "\n", -1);
    HV_PRECONDITION(!lines.empty(), "src/relaytool", precondition_line);
    lines.pop_back();
    for (const std::string& line : lines) {
        fprintf(stderr, "[%s stderr] %s\n", who,
                hvlib::backslash_escape(hvlib::strip(line)).c_str());
    }
    buffer.clear();
}

// Whether the buffered bytes end with the suffix. Compared by length, not
// as text: a zero byte from the relay must not hide the line ends after it.
bool ends_with(const std::string& buffer, const std::string& suffix) {
    return buffer.size() >= suffix.size() &&
           buffer.compare(buffer.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

void RelayTool::SSHReceivedOut(const std::string& chunk) {
    relaytool_debug("SSH stdout: [%s]\n", hvlib::backslash_escape(chunk).c_str());
    m_ssh_out_buffer += chunk;
    // Heartbeats are recognised only at the end of the buffered text; the
    // conversation strictly alternates, so nothing else can follow them.
    while (m_ssh_out_buffer == ".\n" || ends_with(m_ssh_out_buffer, "\n.\n")) {
        relaytool_debug("got heartbeat\n");
        m_ssh_out_buffer.resize(m_ssh_out_buffer.size() - 2);
    }
    if (!ends_with(m_ssh_out_buffer, "\n")) return;
    std::string message = m_ssh_out_buffer.substr(0, m_ssh_out_buffer.size() - 1);
    m_ssh_out_buffer.clear();
    serverMessage(message);
}

void RelayTool::expectServerMessage(const std::string& name) { m_expected_message = name; }

void RelayTool::serverMessage(const std::string& message) {
    relaytool_debug("serverMessage [%s]\n", hvlib::backslash_escape(message).c_str());
    hvlib::KeyValues record(message);
    std::string msg = record["msg"];
    if (msg == "ERROR_S") {
        fprintf(stderr, "Relay server error: %s\n", hvlib::url_decode(record["message"]).c_str());
        exit(1);
    }
    if (msg != m_expected_message) {
        hvlib::fatal_error("Unexpected server message %s, expected %s", msg.c_str(),
                           m_expected_message.c_str());
    }
    m_expected_message.clear();

    if (msg == "CHALLENGE_S") {
        std::string signature = getSignature(record["string"]);
        queueSSHInput(hvlib::str_sprintf("msg=CHALLENGE_C sig=%s\n", signature.c_str()));
        expectServerMessage("LOGIN_S");
    } else if (msg == "LOGIN_S") {
        std::string status = "status=CONNECTED";
        status += hvlib::str_sprintf(" ep_display_name=%s", record["ep_display_name"].c_str());
        status += hvlib::str_sprintf(" web_ux_url=%s", record["web_ux_url"].c_str());
        printf("RELAYTOOL=1 %s\n", status.c_str());
        m_logged_in = true;
    } else if (msg == "SETUP_S") {
        doSetup(record);
        m_setup_done = true;
    } else if (msg == "UPGRADE_S") {
        doSetup(record);
        fprintf(stderr, "Upgrade complete, sending login\n");
        sendLoginMessage();
    } else {
        hvlib::fatal_error("bad server message");
    }
}

void RelayTool::SSHReceivedErr(const std::string& chunk) {
    log_error_lines(m_ssh_err_buffer, chunk, "ssh", 163);
}

void RelayTool::FTPReceivedStderr(const std::string& chunk) {
    log_error_lines(m_ftp_err_buffer, chunk, "ftp", 181);
}

void RelayTool::onStatusUpdate(int nr_ftp_active) {
    HV_PRECONDITION(nr_ftp_active >= 0, "src/relaytool", 267);
    if (!m_logged_in) return;
    std::string status;
    if (m_ftp_port == -1) {
        status = "status=PAUSED";
    } else if (nr_ftp_active > 0) {
        status = hvlib::str_sprintf("status=ACTIVE nr_workers=%d", nr_ftp_active);
    } else {
        status = "status=IDLE";
    }
    if (status == m_last_status) return;
    printf("RELAYTOOL=1 %s\n", status.c_str());
    m_last_status = status;
}

void RelayTool::SSHExited(int code) {
    relaytool_debug("SSH Exited: %d\n", code);
    if (m_setup_done) {
        relaytool_debug("exiting (success)\n");
        exit(0);
    }
    relaytool_debug("exiting (error)\n");
    exit(1);
}
