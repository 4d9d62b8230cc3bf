#include "settings.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "build_info.h"
#include "diag.h"
#include "file.h"
#include "strutil.h"
#include "tool.h"

namespace endpoint {

namespace {

// Meant for relaytool-endpoint alone: the service manager's protocol
// variables would make the tool's children talk to the service manager, the
// mode switches would turn a login into a setup or a self-check, and the
// tool's debug output holds its private keys (only --debug passes it on).
const char kNotForTheTool[] =
    "NOTIFY_SOCKET WATCHDOG_PID WATCHDOG_USEC LISTEN_PID LISTEN_FDS LISTEN_FDNAMES HVN_SETUP_CODE "
    "HVN_RELAYTOOL_TEST HVN_DEBUG RELAYTOOL_PATH RELAYTOOL_BACKOFF_MIN RELAYTOOL_BACKOFF_MAX "
    "RELAYTOOL_SHARED_DIRS RELAYTOOL_TRUST_DIR";

// The GridFTP server's configuration quotes values and has no escapes, and
// restrict_paths is a comma-separated list in which "$" starts a variable.
const char kInexpressible[] = "\"\\\n";
const char kInexpressibleShared[] = "\"\\\n,$";

std::string value_of(const EnvMap& env, const std::string& name) {
    auto it = env.find(name);
    return it == env.end() ? std::string() : it->second;
}

bool problem_with(std::string& problem, const std::string& name, const std::string& message) {
    problem = name + ": " + message;
    return false;
}

std::string absolute(const std::string& path, const SystemFacts& facts) {
    std::string result = !path.empty() && path[0] == '/' ? path : facts.cwd + "/" + path;
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

bool parse_port(const std::string& text, int low, int& port) {
    char* end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    port = static_cast<int>(value);
    return !text.empty() && text.find_first_not_of("-0123456789") == std::string::npos &&
           *end == '\0' && value >= low && value <= 65535;
}

bool parse_seconds(const std::string& text, double& seconds) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
    char* end = nullptr;
    seconds = strtod(text.c_str(), &end);
    return *end == '\0' && std::isfinite(seconds) && seconds > 0 &&
           seconds <= Backoff::kLimitSeconds;
}

bool program_ready(const char* name, const std::string& path, std::string& problem) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        return problem_with(problem, name,
                            "cannot use " + path + ": " + hvlib::get_strerror_string(errno));
    }
    return (S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0) ||
           problem_with(problem, name, path + " is not an executable program");
}

bool shared_dirs_ready(const Settings& settings, std::string& problem) {
    for (const Share& share : settings.shared) {
        struct stat st {};
        if (stat(share.dir.c_str(), &st) != 0) {
            return problem_with(
                problem, "RELAYTOOL_SHARED_DIRS",
                "cannot share " + share.dir + ": " + hvlib::get_strerror_string(errno));
        }
        if (!S_ISDIR(st.st_mode)) {
            return problem_with(problem, "RELAYTOOL_SHARED_DIRS",
                                share.dir + " is not a directory");
        }
    }
    return true;
}

// A path that the GridFTP server's configuration is to hold: absolute, and
// without the characters `forbidden` there.
bool server_path(const char* name, const std::string& path, const char* forbidden,
                 std::string& problem) {
    if (path[0] != '/')
        return problem_with(problem, name, "'" + path + "' is not an absolute path");
    return path.find_first_of(forbidden) == std::string::npos ||
           problem_with(problem, name,
                        "'" + path +
                            "' holds a character that the GridFTP server's configuration "
                            "cannot express (a quote, backslash or line break; in a "
                            "list also a comma or $)");
}

// What the GridFTP server shares ("DIR" or "DIR:ro" separated by ':', the
// home by default), and the authority it trusts (the installed one, if any).
bool resolve_server_settings(const EnvMap& env, Settings& out, std::string& problem) {
    const char* name = "RELAYTOOL_SHARED_DIRS";
    std::string shared = value_of(env, name);
    if (shared.empty()) shared = out.home;
    for (const std::string& entry : hvlib::split(shared, ":", -1)) {
        if (entry == "ro" && (out.shared.empty() || out.shared.back().read_only)) {
            return problem_with(problem, name, "'ro' follows no directory");
        }
        if (entry == "ro") {
            out.shared.back().read_only = true;
        } else if (!entry.empty()) {
            if (!server_path(name, entry, kInexpressibleShared, problem)) return false;
            out.shared.push_back({absolute(entry, {}), false});
        }
    }
    if (out.shared.empty()) return problem_with(problem, name, "names no directory");
    out.trust_dir = value_of(env, "RELAYTOOL_TRUST_DIR");
    if (out.trust_dir.empty()) out.trust_dir = RELAYTOOL_DEFAULT_TRUST_DIR;
    if ((!out.trust_dir.empty() &&
         !server_path("RELAYTOOL_TRUST_DIR", out.trust_dir, kInexpressible, problem)) ||
        !server_path("HVN_CONFIG_DIR", out.config_dir, kInexpressibleShared, problem) ||
        (!out.home.empty() && !server_path("HOME", out.home, kInexpressibleShared, problem))) {
        return false;
    }
    if (!out.trust_dir.empty()) out.trust_dir = absolute(out.trust_dir, {});
    return true;
}

// Never served unless named as a shared directory themselves: besides the
// configuration directory, where the user's keys live.
const char* const kPrivateStores[] = {
    ".ssh", ".gnupg", ".globus", ".pki", ".local/share/keyrings", ".password-store",
};

std::string quoted(const std::string& value) { return "\"" + value + "\""; }

// The path with symbolic links resolved as far as it exists: the server
// resolves what a client asks for, but a restriction only if it exists.
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
        tail.insert(0, head, slash, std::string::npos);
        head.resize(slash);
    }
}

bool inside(const std::string& path, const std::string& dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
           (dir == "/" || path[dir.size()] == '/');
}

// restrict_paths: each share (R: read-only), "N" (no access) for each private
// store inside one, and read-only the directories between a writable share
// and a store, or a client could rename one and find the store renamed.
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

SystemFacts system_facts() {
    SystemFacts facts;
    struct utsname names {};
    if (uname(&names) == 0) {
        facts.os = names.sysname;
        facts.os_version = names.release;
    }
    // PRETTY_NAME="Debian GNU/Linux 12 (bookworm)": the one value we need.
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {  // the first found
        std::string text;
        if (hvlib::try_read_file_contents(path, text) != 0) continue;
        for (const std::string& line : hvlib::split(text, "\n", -1)) {
            if (line.rfind("PRETTY_NAME=", 0) != 0) continue;
            std::string value = hvlib::strip(line.substr(12));
            if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'')) {
                value = value.substr(1, value.size() - 2);
            }
            if (!value.empty()) facts.os_version = value;
        }
        break;
    }
    if (const struct passwd* pw = getpwuid(geteuid())) {
        facts.user = pw->pw_name;
        facts.home = pw->pw_dir;
    }
    if (char* cwd = getcwd(nullptr, 0)) {
        facts.cwd = cwd;
        free(cwd);
    }
    return facts;
}

EnvMap environment(char** envp) {
    EnvMap env;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        std::string text = *entry;
        size_t eq = text.find('=');
        if (eq != std::string::npos && eq != 0 && eq + 1 != text.size()) {
            env[text.substr(0, eq)] = text.substr(eq + 1);
        }
    }
    return env;
}

bool resolve_settings(const EnvMap& env, Command command, const SystemFacts& facts, Settings& out,
                      std::string& problem) {
    EnvMap tool = env;
    auto fill = [&tool](const std::string& name, const std::string& fallback) {
        return tool.emplace(name, fallback).first->second;
    };

    out.home = value_of(env, "HOME");
    if (out.home.empty()) out.home = facts.home;
    // XDG base directories must be absolute; a relative XDG_CONFIG_HOME is ignored.
    std::string config_home = value_of(env, "XDG_CONFIG_HOME");
    if (config_home.empty() || config_home[0] != '/') {
        config_home = out.home.empty() ? "" : out.home + "/.config";
    }
    if (value_of(env, "HVN_CONFIG_DIR").empty() && config_home.empty()) {
        return problem_with(problem, "HVN_CONFIG_DIR",
                            "not set, and no home directory to put it in");
    }
    out.config_dir = absolute(fill("HVN_CONFIG_DIR", config_home + "/relaytool"), facts);
    tool["HVN_CONFIG_DIR"] = out.config_dir;
    if (command != Command::Run && command != Command::Setup) return true;

    const std::pair<const char*, double*> bounds[] = {
        {"RELAYTOOL_BACKOFF_MIN", &out.backoff_min},
        {"RELAYTOOL_BACKOFF_MAX", &out.backoff_max},
    };
    for (const auto& [name, bound] : bounds) {
        std::string text = value_of(env, name);
        if (command == Command::Run && !text.empty() && !parse_seconds(text, *bound)) {
            return problem_with(
                problem, name,
                "'" + text + "' is not a number of seconds above 0 and at most 86400");
        }
    }
    if (out.backoff_min > out.backoff_max) {
        return problem_with(problem, "RELAYTOOL_BACKOFF_MIN", "larger than RELAYTOOL_BACKOFF_MAX");
    }

    // The tool's own reading of the address: a value it cannot use stops us now.
    std::string relay = value_of(env, "HVN_RELAY_SERVER");
    hvlib::StringList parts = hvlib::split_relay_server(relay);
    int port = 0;
    if (relay.empty()) {
        return problem_with(problem, "HVN_RELAY_SERVER",
                            "not set; name the relay server as HOST or HOST:PORT");
    }
    if (parts.size() != 2 || parts[0].empty() || !parse_port(parts[1], 1, port)) {
        return problem_with(problem, "HVN_RELAY_SERVER",
                            "'" + relay + "' is not HOST or HOST:PORT (a port from 1 to 65535)");
    }
    out.relay_host = parts[0];
    out.relay_port = parts[1];
    if (value_of(env, "HVN_GRIDFTP_PATH").empty()) {
        return problem_with(problem, "HVN_GRIDFTP_PATH",
                            "not set; name the GridFTP server program to run for each transfer");
    }
    if (facts.user.empty() && value_of(env, "HVN_USER").empty()) {
        return problem_with(problem, "HVN_USER", "not set, and the current user has no name");
    }
    fill("HVN_USER", facts.user);
    fill("HVN_OS", facts.os.empty() ? "unknown" : facts.os);
    fill("HVN_OS_VERSION", facts.os_version.empty() ? "unknown" : facts.os_version);
    fill("HVN_APP_VERSION", std::string("relaytool-endpoint ") + RELAYTOOL_ENDPOINT_VERSION);
    fill("HVN_SSH_PATH", "/usr/bin/ssh");
    fill("HVN_PDEATH_PATH", RELAYTOOL_DEFAULT_PDEATH);
    tool["HVN_GLOBAL_ETC_DIR"] =
        absolute(fill("HVN_GLOBAL_ETC_DIR", RELAYTOOL_DEFAULT_ETC_DIR), facts);
    out.tool_path = value_of(env, "RELAYTOOL_PATH");
    if (out.tool_path.empty()) out.tool_path = RELAYTOOL_DEFAULT_TOOL;

    if (command == Command::Run) {
        int ftp_port = 0;
        std::string ftp = fill("HVN_FTP_PORT", "0");
        if (!parse_port(ftp, -1, ftp_port)) {
            return problem_with(problem, "HVN_FTP_PORT",
                                "'" + ftp + "' is not -1 (paused), 0 (own listener) or a port");
        }
        if (!resolve_server_settings(env, out, problem)) return false;
    }
    for (const std::string& name : hvlib::split(kNotForTheTool, " ", -1)) tool.erase(name);
    out.tool_env = tool;
    return true;
}

bool paths_ready(const Settings& settings, Command command, std::string& problem) {
    const EnvMap& env = settings.tool_env;
    std::string key = value_of(env, "HVN_GLOBAL_ETC_DIR") + "/relay-anonymous.key";
    bool run = command == Command::Run;  // setup runs no GridFTP server
    return program_ready("RELAYTOOL_PATH", settings.tool_path, problem) &&
           program_ready("HVN_PDEATH_PATH", value_of(env, "HVN_PDEATH_PATH"), problem) &&
           program_ready("HVN_SSH_PATH", value_of(env, "HVN_SSH_PATH"), problem) &&
           (!run ||
            program_ready("HVN_GRIDFTP_PATH", value_of(env, "HVN_GRIDFTP_PATH"), problem)) &&
           (hvlib::file_readable(key) ||
            problem_with(problem, "HVN_GLOBAL_ETC_DIR", "cannot read " + key)) &&
           (!run || shared_dirs_ready(settings, problem)) &&
           (!run || settings.trust_dir.empty() || trust_dir_ready(settings.trust_dir, problem));
}

const char* const kGeneratedMarker =
    "# Written by relaytool-endpoint, which rewrites this file at each run while this line is "
    "first.";

std::string gridftp_conf_text(const Settings& settings) {
    const std::string& dir = settings.config_dir;
    std::string text =
        std::string(kGeneratedMarker) +
        "\n"
        "# To keep a file of your own here, remove that line; to get the generated\n"
        "# one back, remove or rename yours. Setup wrote the certificate, key and map.\n"
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
           "# What it serves (R: read only), never (N) the private stores inside.\n"
           "restrict_paths " +
           quoted(restricted_paths(settings)) + "\nhome_dir " +
           quoted(settings.shared.front().dir) +
           "\n"
           "# The log goes to the endpoint's, with each transfer and the control channel.\n"
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
        std::string policy = dir + "/";
        policy.append(name, 0, name.size() - 2).append(".signing_policy");
        if (!hvlib::file_readable(policy)) {  // the server would say so only to the client
            problem = hvlib::str_sprintf(
                "RELAYTOOL_TRUST_DIR: %s/%s has no readable %s beside it, without which the "
                "GridFTP server refuses its certificates",
                dir.c_str(), name.c_str(), policy.c_str());
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
