#include "gridftp_conf.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "build_info.h"
#include "diag.h"
#include "file.h"
#include "strutil.h"

namespace endpoint {

const char* const kGeneratedMarker =
    "# Written by relaytool-endpoint, which rewrites this file at each run while this line is "
    "first.";

const char* const kGridftpSettingNames[2] = {"RELAYTOOL_SHARED_DIRS", "RELAYTOOL_TRUST_DIR"};

namespace {

// The server's configuration has no escapes: a value is quoted, so a quote,
// a backslash or a line break cannot be in it; restrict_paths is a comma-
// separated list, and "$" starts the variables that home_dir expands.
const char* const kInexpressible = "\"\\\n";
const char* const kInexpressibleShared = "\"\\\n,$";

std::string value_of(const EnvMap& env, const char* name) {
    auto it = env.find(name);
    return it == env.end() ? std::string() : it->second;
}

bool problem_with(SettingProblem& problem, const char* name, const std::string& message) {
    problem.name = name;
    problem.message = message;
    return false;
}

std::string without_trailing_slashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

bool check_directory(const char* name, const std::string& path, SettingProblem& problem) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        return problem_with(problem, name,
                            errno == ENOENT
                                ? path + " does not exist"
                                : hvlib::str_sprintf("cannot use %s: %s", path.c_str(),
                                                     hvlib::get_strerror_string(errno).c_str()));
    }
    if (!S_ISDIR(st.st_mode)) return problem_with(problem, name, path + " is not a directory");
    return true;
}

// Globus refuses every certificate from an authority whose <hash>.0 has no
// <hash>.signing_policy beside it, and says so only to the client.
bool check_trust_dir(const std::string& dir, SettingProblem& problem) {
    if (!check_directory("RELAYTOOL_TRUST_DIR", dir, problem)) return false;
    DIR* listing = opendir(dir.c_str());
    if (listing == nullptr) {
        return problem_with(problem, "RELAYTOOL_TRUST_DIR",
                            hvlib::str_sprintf("cannot read %s: %s", dir.c_str(),
                                               hvlib::get_strerror_string(errno).c_str()));
    }
    int certificates = 0;
    std::string unpaired;
    while (const dirent* entry = readdir(listing)) {
        std::string name = entry->d_name;
        if (name.size() < 3 || name.compare(name.size() - 2, 2, ".0") != 0) continue;
        ++certificates;
        std::string policy = dir;
        policy.append("/").append(name, 0, name.size() - 2).append(".signing_policy");
        if (unpaired.empty() && !hvlib::file_readable(policy)) unpaired = name;
    }
    closedir(listing);
    if (certificates == 0) {
        return problem_with(problem, "RELAYTOOL_TRUST_DIR",
                            dir + " holds no certificate under a hashed name (<hash>.0)");
    }
    if (!unpaired.empty()) {
        return problem_with(problem, "RELAYTOOL_TRUST_DIR",
                            dir + "/" + unpaired + " has no readable " +
                                unpaired.substr(0, unpaired.size() - 2) +
                                ".signing_policy beside it, without which the GridFTP server "
                                "refuses its certificates");
    }
    return true;
}

std::string quoted(const std::string& value) { return "\"" + value + "\""; }

}  // namespace

bool resolve_gridftp_settings(const EnvMap& env, const SystemFacts& facts, Settings& out,
                              SettingProblem& problem) {
    const char* shared_name = kGridftpSettingNames[0];
    std::string shared = value_of(env, shared_name);
    if (shared.empty()) shared = value_of(env, "HOME");
    if (shared.empty()) shared = facts.home;
    if (shared.empty()) {
        return problem_with(problem, shared_name, "not set, and no home directory to share");
    }
    out.shared_dirs.clear();
    for (const std::string& piece : hvlib::split(shared, ":", -1)) {
        if (piece.empty()) continue;
        if (piece[0] != '/') {
            return problem_with(problem, shared_name, "'" + piece + "' is not an absolute path");
        }
        if (piece.find_first_of(kInexpressibleShared) != std::string::npos) {
            return problem_with(problem, shared_name,
                                "'" + piece +
                                    "' holds a quote, backslash, line break, comma or $, which "
                                    "the GridFTP server's configuration cannot express");
        }
        out.shared_dirs.push_back(without_trailing_slashes(piece));
    }
    if (out.shared_dirs.empty()) return problem_with(problem, shared_name, "names no directory");

    const char* trust_name = kGridftpSettingNames[1];
    std::string trust = value_of(env, trust_name);
    if (trust.empty()) trust = RELAYTOOL_DEFAULT_TRUST_DIR;
    if (!trust.empty() && trust[0] != '/') {
        return problem_with(problem, trust_name, "'" + trust + "' is not an absolute path");
    }
    if (trust.find_first_of(kInexpressible) != std::string::npos) {
        return problem_with(problem, trust_name,
                            "'" + trust +
                                "' holds a quote, backslash or line break, which the GridFTP "
                                "server's configuration cannot express");
    }
    out.trust_dir = trust.empty() ? trust : without_trailing_slashes(trust);
    return true;
}

bool check_gridftp_settings_on_system(const Settings& settings, SettingProblem& problem) {
    for (const std::string& dir : settings.shared_dirs) {
        if (!check_directory("RELAYTOOL_SHARED_DIRS", dir, problem)) return false;
    }
    return settings.trust_dir.empty() || check_trust_dir(settings.trust_dir, problem);
}

bool render_gridftp_conf(const Settings& settings, std::string& text, std::string& error) {
    const std::string& dir = settings.config_dir;
    if (dir.find_first_of(kInexpressible) != std::string::npos) {
        error = "the configuration directory " + dir +
                " holds a quote, backslash or line break, which the GridFTP server's "
                "configuration cannot express";
        return false;
    }
    std::string shared;
    for (const std::string& d : settings.shared_dirs) shared += (shared.empty() ? "" : ",") + d;
    text = std::string(kGeneratedMarker) +
           "\n"
           "# To keep a configuration of your own here, remove that line; to get the\n"
           "# generated one back, remove or rename your file.\n"
           "#\n"
           "# The GridFTP server that the relay tool starts for each connection the relay\n"
           "# forwards (globus-gridftp-server -i -c this file), as relaytool-endpoint\n"
           "# configures it from RELAYTOOL_SHARED_DIRS and RELAYTOOL_TRUST_DIR.\n"
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
    text +=
        "\n"
        "# What it serves; a client starts in the first directory.\n"
        "restrict_paths " +
        quoted(shared) + "\nhome_dir " + quoted(settings.shared_dirs.front()) +
        "\n"
        "\n"
        "# Its log goes, line by line and at once, to its standard error, which the\n"
        "# tool copies into the endpoint's log; DUMP adds the control channel, whose\n"
        "# replies say why a login was refused.\n"
        "log_single /dev/stderr\n"
        "log_module stdio:buffer=0\n"
        "log_level ERROR,WARN,INFO,DUMP\n";
    return true;
}

int ensure_gridftp_conf(const Settings& settings, ConfOutcome& outcome, std::string& error) {
    std::string path = settings.config_dir + "/gridftp.conf";
    std::string existing;
    int err = hvlib::try_read_file_contents(path, existing);
    if (err != 0 && err != ENOENT) {
        error = hvlib::str_sprintf("cannot read %s: %s", path.c_str(),
                                   hvlib::get_strerror_string(err).c_str());
        return 2;
    }
    std::string marker = std::string(kGeneratedMarker) + "\n";
    if (err == 0 && existing.compare(0, marker.size(), marker) != 0) {
        outcome = ConfOutcome::Operators;
        return 0;
    }
    std::string text;
    if (!render_gridftp_conf(settings, text, error)) return 2;
    if (err == 0 && existing == text) {
        outcome = ConfOutcome::Unchanged;
        return 0;
    }
    if (int werr = hvlib::replace_file_atomically(path, text); werr != 0) {
        error = hvlib::str_sprintf("cannot write %s: %s", path.c_str(),
                                   hvlib::get_strerror_string(werr).c_str());
        return 1;
    }
    outcome = ConfOutcome::Written;
    return 0;
}

int prepare_gridftp_conf(const Settings& settings) {
    ConfOutcome outcome = ConfOutcome::Unchanged;
    std::string error;
    if (int status = ensure_gridftp_conf(settings, outcome, error); status != 0) {
        fprintf(stderr, "relaytool-endpoint: %s\n", error.c_str());
        return status;
    }
    std::string path = settings.config_dir + "/gridftp.conf";
    if (outcome == ConfOutcome::Operators) {
        fprintf(stderr, "relaytool-endpoint: %s is the operator's own; left as it is\n",
                path.c_str());
        return 0;
    }
    if (outcome == ConfOutcome::Written) {
        std::string shared;
        for (const std::string& d : settings.shared_dirs) shared += (shared.empty() ? "" : ":") + d;
        fprintf(stderr, "relaytool-endpoint: wrote %s: sharing %s\n", path.c_str(), shared.c_str());
    }
    if (settings.trust_dir.empty()) {
        fprintf(stderr,
                "relaytool-endpoint: RELAYTOOL_TRUST_DIR: not set, and this build trusts no relay "
                "authority: the GridFTP server will refuse certificates the relay issued\n");
    }
    return 0;
}

}  // namespace endpoint
