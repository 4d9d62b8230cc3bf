// Fuzz-only stand-ins for what the relay conversation reaches outside
// itself: the platform members of RelayTool (no ssh child, no event loop, no
// listener), the RSA signature and the build-time relay keys. The rest of
// the controller (src/protocol.cpp, src/session.cpp, src/relaytool.cpp) is
// the real code.
#include <string>
#include <vector>

#include "fuzz_protocol.h"
#include "fuzz_support.h"
#include "relaytool.h"
#include "sign.h"

std::vector<std::string> g_queued_input;

const char* const RELAY_KEY = "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQFuzzMain";
const char* const RELAY_BACKUP_KEY = "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQFuzzBackup";

// m_impl stays null: every member that would use it is replaced here.
void RelayTool::initPlatform() {}

void RelayTool::queueSSHInput(const std::string& data) { g_queued_input.push_back(data); }

// Never reached from the server's output.
void RelayTool::runReactor() { fuzz_fail("runReactor reached", ""); }
void RelayTool::launchSSH(const hvlib::StringList&) { fuzz_fail("launchSSH reached", ""); }
void RelayTool::startInetd() { fuzz_fail("startInetd reached", ""); }

// A deterministic stand-in that keeps what was signed visible: the hex of
// the data. The RSA primitive itself is covered by the unit tests.
std::string sign_rsa_sha256(std::string key_pem, std::string data) {
    (void)key_pem;
    return hvlib::hex_encode(data);
}
