// The configuration of the GridFTP server that the relay tool starts for each
// forwarded connection (globus-gridftp-server -i -c gridftp.conf): written by
// relaytool-endpoint from its settings unless the operator keeps a file of
// their own there.
#pragma once

#include <string>

#include "settings.h"

namespace endpoint {

// The first line of a generated gridftp.conf. A file that starts with it is
// relaytool-endpoint's to rewrite; any other file is the operator's.
extern const char* const kGeneratedMarker;

// The text of a generated gridftp.conf.
std::string gridftp_conf_text(const Settings& settings);

enum class ConfOutcome { Written, Unchanged, Operators };

// Writes gridftp.conf into the configuration directory (a new file renamed
// into place, mode 0600) when there is none or the one there is generated,
// so that changed settings reach it; an operator's own file is left alone.
// 0, or the errno of a failed read or write.
int write_gridftp_conf(const Settings& settings, ConfOutcome& outcome);

// Whether a trust directory holds certificates under hashed names
// (<hash>.0), each with the signing policy that Globus requires beside it;
// false, with "RELAYTOOL_TRUST_DIR: fault" in `problem`.
bool trust_dir_ready(const std::string& dir, std::string& problem);

}  // namespace endpoint
