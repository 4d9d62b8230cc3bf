
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "diag.h"
#include "file.h"
#include "settings.h"

namespace endpoint {

const char* const kGeneratedMarker =
    "# Written by relaytool-endpoint, which rewrites this file at each run while this line is "
    "first.";

namespace {

// Never served unless named as a shared directory themselves: besides the
// configuration directory, where the user's keys live.
const char* const kPrivateStores[] = {
    ".ssh", ".gnupg", ".globus", ".pki", ".local/share/keyrings", ".password-store",
};

std::string quoted(const std::string& value) { return "\"" + value + "\""; }

// The path with symbolic links resolved as far as it exists: the GridFTP
// server resolves both its restrictions and what a client asks for, but a
// restriction on a path that does not exist yet only as written.
std::string resolved(const std::string& path) {
    std::string head = path, tail;
    for (;;) {
        if (char* real = realpath(head.c_str(), nullptr)) {
            std::string result = real;
            free(real);
            return result == "/" ? tail : result + tail;
        }
        size_t slash = head.rfind('/');
        if (slash == 0 || slash == std::string::npos) return path;
        tail = head.substr(slash) + tail;
        head.resize(slash);
    }
}

bool inside(const std::string& path, const std::string& dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
           (dir == "/" || path[dir.size()] == '/');
}

// restrict_paths: each shared directory (R: read-only), and "N" (no access)
// for each private store inside one. The directories between a writable
// share and a store are read-only, or a client could rename one and find
// the store under a new name.
std::string restricted_paths(const Settings& settings) {
    std::vector<std::pair<std::string, bool>> shares;  // resolved, writable
    std::vector<std::string> entries;
    auto add = [&entries](const std::string& entry) {
        if (std::find(entries.begin(), entries.end(), entry) == entries.end()) {
            entries.push_back(entry);
        }
    };
    for (const Share& share : settings.shared) {
        shares.emplace_back(resolved(share.dir), !share.read_only);
        add((share.read_only ? "R" : "") + share.dir);
    }
    std::vector<std::string> stores = {settings.config_dir};
    for (const char* store : kPrivateStores) {
        if (!settings.home.empty()) stores.push_back(settings.home + "/" + store);
    }
    for (const std::string& store : stores) {
        std::string path = resolved(store);
        auto is_share = [&](const std::string& p) {
            return std::any_of(shares.begin(), shares.end(), [&](auto& s) { return s.first == p; });
        };
        bool served = std::any_of(shares.begin(), shares.end(),
                                  [&](auto& share) { return inside(path, share.first); });
        if (is_share(path) || !served) continue;
        for (size_t slash = path.find('/', 1); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            std::string above = path.substr(0, slash);
            bool writable = std::any_of(shares.begin(), shares.end(), [&](auto& share) {
                return share.second && inside(above, share.first);
            });
            if (writable && !is_share(above)) add("R" + above);
        }
        add("N" + path);
    }
    std::string text;
    for (const std::string& entry : entries) text += (text.empty() ? "" : ",") + entry;
    return text;
}

}  // namespace

std::string gridftp_conf_text(const Settings& settings) {
    const std::string& dir = settings.config_dir;
    std::string text =
        std::string(kGeneratedMarker) +
        "\n"
        "# To keep a file of your own here, remove that line; to get the generated\n"
        "# one back, remove or rename yours. The GridFTP server that the tool starts\n"
        "# for each connection the relay forwards (globus-gridftp-server -i -c this).\n"
        "\n"
        "# The endpoint's certificate and key, and the user map, as setup wrote them.\n"
        "$X509_USER_CERT " +
        quoted(dir + "/ftp-cert2.pem") + "\n$X509_USER_KEY " + quoted(dir + "/ftp-key2.pem") +
        "\n$GRIDMAP " + quoted(dir + "/gridmap") + "\n";
    if (settings.trust_dir.empty()) {
        text +=
            "# No relay authority is trusted: the build has none and RELAYTOOL_TRUST_DIR\n"
            "# is not set, so the server looks only in its own places.\n";
    } else {
        text += "# The authority it trusts to verify clients: the relay's.\n$X509_CERT_DIR " +
                quoted(settings.trust_dir) + "\n";
    }
    return text +
           "\n"
           "# What it serves (R: read only), and never (N) the private stores inside,\n"
           "# nor through a symbolic link; a client starts in the first directory.\n"
           "restrict_paths " +
           quoted(restricted_paths(settings)) + "\nhome_dir " +
           quoted(settings.shared.front().dir) +
           "\n"
           "\n"
           "# Its log goes at once to its standard error, which the tool copies into the\n"
           "# endpoint's log; TRANSFER adds a record of each transfer, DUMP the control\n"
           "# channel, whose replies say why a login was refused.\n"
           "log_single /dev/stderr\n"
           "log_module stdio:buffer=0\n"
           "log_level ERROR,WARN,INFO,TRANSFER,DUMP\n";
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
    std::error_code failed;
    int certificates = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir, failed)) {
        std::string name = entry.path().filename();
        if (name.size() < 3 || name.compare(name.size() - 2, 2, ".0") != 0) continue;
        ++certificates;
        std::string policy = dir + "/" + name.substr(0, name.size() - 2) + ".signing_policy";
        if (!hvlib::file_readable(policy)) {  // the server would say so only to the client
            problem = "RELAYTOOL_TRUST_DIR: " + dir + "/" + name + " has no readable " + policy +
                      " beside it, without which the GridFTP server refuses its certificates";
            return false;
        }
    }
    if (failed) problem = "RELAYTOOL_TRUST_DIR: cannot read " + dir + ": " + failed.message();
    if (!failed && certificates == 0) {
        problem =
            "RELAYTOOL_TRUST_DIR: " + dir + " holds no certificate under a hashed name (<hash>.0)";
    }
    return certificates > 0;
}

}  // namespace endpoint
