// The configuration of the GridFTP server that the relay tool starts for each
// forwarded connection (globus-gridftp-server -i -c gridftp.conf): written by
// relaytool-endpoint from its settings unless the operator keeps a file of
// their own there.
#pragma once

#include <string>
#include <vector>

#include "settings.h"

namespace endpoint {

// The first line of a generated gridftp.conf. A file that starts with it is
// relaytool-endpoint's to rewrite; any other file is the operator's.
extern const char* const kGeneratedMarker;

// The settings below, which are relaytool-endpoint's alone: not for the tool.
extern const char* const kGridftpSettingNames[2];

// Reads RELAYTOOL_SHARED_DIRS (default: the home directory) and
// RELAYTOOL_TRUST_DIR (default: the build's) into `out`; checks their form.
bool resolve_gridftp_settings(const EnvMap& env, const SystemFacts& facts, Settings& out,
                              SettingProblem& problem);

// Checks that each shared directory and the trust directory exist, and that
// every certificate of the trust directory has its signing policy.
bool check_gridftp_settings_on_system(const Settings& settings, SettingProblem& problem);

// The text of a generated gridftp.conf; false (and the reason) if a path
// holds a character that the server's configuration cannot express.
bool render_gridftp_conf(const Settings& settings, std::string& text, std::string& error);

enum class ConfOutcome { Written, Unchanged, Operators };

// Writes gridftp.conf into the configuration directory (a new file renamed
// into place, mode 0600) when there is none or the one there is generated;
// an operator's own file is left alone. 0, or on failure the exit status
// (2: bad input, 1: a failed system call) and the reason.
int ensure_gridftp_conf(const Settings& settings, ConfOutcome& outcome, std::string& error);

// What `run` does before it starts the tool: ensure_gridftp_conf, with one
// line on standard error for what matters; 0 or the exit status to end with.
int prepare_gridftp_conf(const Settings& settings);

}  // namespace endpoint
