// Entry point: prepares the process, reads every setting from the
// environment and hands control to the self-check, setup or login.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "debug.h"
#include "diag.h"
#include "relaytool.h"
#include "strutil.h"
#include "test.h"

namespace {

// The value of a required variable; absent or empty ends the process.
std::string require_env(const char* name) {
    const char* value = getenv(name);
    if (value == nullptr || value[0] == '\0') {
        fprintf(stderr, "Env var '%s' must be set\n", name);
        exit(2);
    }
    return value;
}

// "host" or "host:port"; the port defaults to 2223.
void parse_relay_server(const std::string& value, RelayConfig& config) {
    hvlib::StringList parts = hvlib::split_relay_server(value);
    HV_PRECONDITION(parts.size() == 2, "src/main", 71);
    config.relay_server = parts[0];
    config.relay_port = atoi(parts[1].c_str());
}

}  // namespace

int main() {
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IONBF, 0);
    setvbuf(stderr, nullptr, _IONBF, 0);

    if (getenv("HVN_DEBUG") != nullptr) {
        g_debug_file = stderr;
        relaytool_debug("activated debug logging");
    }

    if (getenv("HVN_RELAYTOOL_TEST") != nullptr) {
        puts("running hvlib unit tests");
        hvlib::run_unit_tests();
        exit(0);
    }

    RelayConfig config;
    const char* protocol_version = getenv("HVN_PROTOCOL_VERSION");
    config.protocol_version = protocol_version != nullptr ? atoi(protocol_version) : 2;
    config.os = require_env("HVN_OS");
    config.os_version = require_env("HVN_OS_VERSION");
    config.app_version = require_env("HVN_APP_VERSION");
    config.ssh_path = require_env("HVN_SSH_PATH");
    config.gridftp_path = require_env("HVN_GRIDFTP_PATH");
    config.pdeath_path = require_env("HVN_PDEATH_PATH");
    const std::string relay_server = require_env("HVN_RELAY_SERVER");
    config.user = require_env("HVN_USER");
    config.config_dir = require_env("HVN_CONFIG_DIR");
    config.global_etc_dir = require_env("HVN_GLOBAL_ETC_DIR");
    // Split only once every required variable is known to be there: a
    // missing one is reported before a malformed server is.
    parse_relay_server(relay_server, config);

    // The constructor installs the SSH files, so it runs before the mode
    // variables are looked at.
    RelayTool tool(config);

    if (const char* code = getenv("HVN_SETUP_CODE")) {
        tool.runSetup(hvlib::strip(code));
    } else {
        tool.setFTPPort(atoi(require_env("HVN_FTP_PORT").c_str()));
        tool.runLogin();
    }
    HV_PRECONDITION(false, "src/main", 95);
}
