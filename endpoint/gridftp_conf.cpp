#include "gridftp_conf.h"

#include <dirent.h>

#include <cerrno>
#include <memory>

#include "diag.h"
#include "file.h"

namespace endpoint {

const char* const kGeneratedMarker =
    "# Written by relaytool-endpoint, which rewrites this file at each run while this line is "
    "first.";

namespace {

std::string quoted(const std::string& value) { return "\"" + value + "\""; }

std::string joined(const std::vector<std::string>& parts, const char* separator) {
    std::string text;
    for (const std::string& part : parts) text += (text.empty() ? "" : separator) + part;
    return text;
}

}  // namespace

std::string gridftp_conf_text(const Settings& settings) {
    const std::string& dir = settings.config_dir;
    std::string text =
        std::string(kGeneratedMarker) +
        "\n"
        "# To keep a configuration of your own here, remove that line; to get the\n"
        "# generated one back, remove or rename your file.\n"
        "#\n"
        "# The GridFTP server that the relay tool starts for each connection the\n"
        "# relay forwards (globus-gridftp-server -i -c this file), as\n"
        "# relaytool-endpoint configures it from RELAYTOOL_SHARED_DIRS and\n"
        "# RELAYTOOL_TRUST_DIR.\n"
        "\n"
        "# The endpoint's certificate and key, and the user map, as setup wrote them.\n"
        "$X509_USER_CERT " +
        quoted(dir + "/ftp-cert2.pem") + "\n$X509_USER_KEY " + quoted(dir + "/ftp-key2.pem") +
        "\n$GRIDMAP " + quoted(dir + "/gridmap") + "\n";
    if (settings.trust_dir.empty()) {
        text +=
            "# No relay authority is trusted: the build has none and RELAYTOOL_TRUST_DIR\n"
            "# is not set, so Globus looks only in its own places.\n";
    } else {
        text += "# The authority it trusts to verify clients: the relay's.\n$X509_CERT_DIR " +
                quoted(settings.trust_dir) + "\n";
    }
    return text +
           "\n"
           "# What it serves; a client starts in the first directory.\n"
           "restrict_paths " +
           quoted(joined(settings.shared_dirs, ",")) + "\nhome_dir " +
           quoted(settings.shared_dirs.front()) +
           "\n"
           "\n"
           "# Its log goes, line by line and at once, to its standard error, which the\n"
           "# tool copies into the endpoint's log; DUMP adds the control channel, whose\n"
           "# replies say why a login was refused.\n"
           "log_single /dev/stderr\n"
           "log_module stdio:buffer=0\n"
           "log_level ERROR,WARN,INFO,DUMP\n";
}

int write_gridftp_conf(const Settings& settings, ConfOutcome& outcome) {
    std::string path = settings.config_dir + "/gridftp.conf";
    std::string existing;
    int err = hvlib::try_read_file_contents(path, existing);
    if (err != 0 && err != ENOENT) return err;
    outcome = ConfOutcome::Operators;
    if (err == 0 && existing.rfind(std::string(kGeneratedMarker) + "\n", 0) != 0) return 0;
    std::string text = gridftp_conf_text(settings);
    outcome = err == 0 && existing == text ? ConfOutcome::Unchanged : ConfOutcome::Written;
    return outcome == ConfOutcome::Written ? hvlib::replace_file_atomically(path, text) : 0;
}

bool trust_dir_ready(const std::string& dir, std::string& problem) {
    std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(dir.c_str()), closedir);
    if (!listing) {
        problem =
            "RELAYTOOL_TRUST_DIR: cannot read " + dir + ": " + hvlib::get_strerror_string(errno);
        return false;
    }
    int certificates = 0;
    while (const dirent* entry = readdir(listing.get())) {
        std::string name = entry->d_name;
        if (name.size() < 3 || name.compare(name.size() - 2, 2, ".0") != 0) continue;
        ++certificates;
        std::string policy = dir + "/";
        policy.append(name, 0, name.size() - 2).append(".signing_policy");
        if (!hvlib::file_readable(policy)) {
            // Globus would refuse every certificate of that authority, and
            // say so only to the client.
            problem = hvlib::str_sprintf(
                "RELAYTOOL_TRUST_DIR: %s/%s has no readable %s beside it, without which the "
                "GridFTP server refuses its certificates",
                dir.c_str(), name.c_str(), policy.c_str());
            return false;
        }
    }
    if (certificates == 0) {
        problem = "RELAYTOOL_TRUST_DIR: " + dir +
                  " holds no certificate under a hashed name "
                  "(<hash>.0)";
    }
    return certificates > 0;
}

}  // namespace endpoint
