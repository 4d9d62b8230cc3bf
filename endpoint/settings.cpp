#include "settings.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

#include "backoff.h"
#include "build_info.h"
#include "diag.h"
#include "envfile.h"
#include "file.h"
#include "gridftp_conf.h"
#include "strutil.h"

namespace endpoint {

namespace {

// Meant for relaytool-endpoint alone: the service manager's protocol
// variables would make the tool's children talk to the service manager, and
// the mode switches would turn a login into a setup or a self-check.
const char* const kNotForTheTool[] = {
    "NOTIFY_SOCKET",  "WATCHDOG_PID",          "WATCHDOG_USEC",         "LISTEN_PID",
    "LISTEN_FDS",     "LISTEN_FDNAMES",        "HVN_SETUP_CODE",        "HVN_RELAYTOOL_TEST",
    "RELAYTOOL_PATH", "RELAYTOOL_BACKOFF_MIN", "RELAYTOOL_BACKOFF_MAX",
};

std::string value_of(const EnvMap& env, const std::string& name) {
    auto it = env.find(name);
    return it == env.end() ? std::string() : it->second;
}

bool problem_with(SettingProblem& problem, const std::string& name, const std::string& message) {
    problem.name = name;
    problem.message = message;
    return false;
}

std::string absolute(const std::string& path, const SystemFacts& facts) {
    std::string result = !path.empty() && path[0] == '/' ? path : facts.cwd + "/" + path;
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

std::string config_home(const EnvMap& env, const SystemFacts& facts) {
    // XDG base directories must be absolute; a relative XDG_CONFIG_HOME is ignored.
    std::string xdg = value_of(env, "XDG_CONFIG_HOME");
    if (!xdg.empty() && xdg[0] == '/') return xdg;
    std::string home = value_of(env, "HOME");
    if (home.empty()) home = facts.home;
    if (home.empty()) return "";
    return home + "/.config";
}

bool parse_port(const std::string& text, int low, int& port) {
    if (text.empty() || text.size() > 6) return false;
    size_t start = text[0] == '-' ? 1 : 0;
    if (start == text.size()) return false;
    for (size_t i = start; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
    }
    port = atoi(text.c_str());
    return port >= low && port <= 65535;
}

// The distribution's name and version from os-release, which is written in
// the same KEY=VALUE form as an environment file.
std::string distribution_version() {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::string text;
        if (hvlib::try_read_file_contents(path, text) != 0) continue;
        Assignments fields;
        EnvFileError error;
        if (!parse_env_file(text, fields, error)) continue;
        for (const auto& [key, value] : fields) {
            if (key == "PRETTY_NAME" && !value.empty()) return value;
        }
    }
    return "";
}

bool check_program(const std::string& name, const std::string& path, SettingProblem& problem) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        return problem_with(problem, name,
                            hvlib::str_sprintf("cannot use %s: %s", path.c_str(),
                                               hvlib::get_strerror_string(errno).c_str()));
    }
    if (!S_ISREG(st.st_mode) || access(path.c_str(), X_OK) != 0) {
        return problem_with(problem, name, path + " is not an executable program");
    }
    return true;
}

// mkdir -p with mode 0700 for every directory it creates.
int make_private_dirs(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
    size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        int err = make_private_dirs(path.substr(0, slash));
        if (err != 0) return err;
    }
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return errno;
    return 0;
}

}  // namespace

SystemFacts system_facts() {
    SystemFacts facts;
    struct utsname names {};
    if (uname(&names) == 0) {
        facts.os = names.sysname;
        facts.os_version = names.release;
    }
    std::string distribution = distribution_version();
    if (!distribution.empty()) facts.os_version = distribution;
    if (const struct passwd* pw = getpwuid(geteuid())) {
        facts.user = pw->pw_name;
        facts.home = pw->pw_dir;
    }
    std::vector<char> buffer(4096, '\0');
    if (getcwd(buffer.data(), buffer.size()) != nullptr) facts.cwd = buffer.data();
    return facts;
}

EnvMap environment_of(char** envp) {
    EnvMap env;
    for (char** entry = envp; entry != nullptr && *entry != nullptr; ++entry) {
        std::string text = *entry;
        size_t eq = text.find('=');
        if (eq == std::string::npos || eq == 0) continue;
        env.emplace(text.substr(0, eq), text.substr(eq + 1));  // the first one wins, as getenv
    }
    return env;
}

std::string default_env_file(const EnvMap& env, const SystemFacts& facts) {
    std::string home = config_home(env, facts);
    return home.empty() ? "" : home + "/relaytool/endpoint.env";
}

bool parse_relay_server(const std::string& value, std::string& host, int& port) {
    std::string text = hvlib::strip(value);
    size_t colon = text.find(':');
    host = text.substr(0, colon);
    port = 2223;
    if (host.empty() || host.find_first_of(" \t") != std::string::npos) return false;
    if (colon == std::string::npos) return true;
    return parse_port(text.substr(colon + 1), 1, port);
}

bool parse_seconds(const std::string& text, double& seconds) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
    char* end = nullptr;
    seconds = strtod(text.c_str(), &end);
    return *end == '\0' && std::isfinite(seconds) && seconds > 0 &&
           seconds <= Backoff::kLimitSeconds;
}

bool resolve_settings(const EnvMap& env, Command command, const SystemFacts& facts, Settings& out,
                      SettingProblem& problem) {
    EnvMap tool = env;
    auto fill = [&tool](const std::string& name, const std::string& fallback) {
        if (value_of(tool, name).empty()) tool[name] = fallback;
        return tool[name];
    };

    std::string home = config_home(env, facts);
    if (value_of(env, "HVN_CONFIG_DIR").empty() && home.empty()) {
        return problem_with(problem, "HVN_CONFIG_DIR",
                            "not set, and no home directory to put it in");
    }
    out.config_dir = absolute(fill("HVN_CONFIG_DIR", home + "/relaytool"), facts);
    tool["HVN_CONFIG_DIR"] = out.config_dir;
    if (command == Command::Status) return true;

    std::string relay = value_of(env, "HVN_RELAY_SERVER");
    std::string host;
    int port = 0;
    if (relay.empty()) {
        return problem_with(problem, "HVN_RELAY_SERVER",
                            "not set; name the relay server as HOST or HOST:PORT");
    }
    if (!parse_relay_server(relay, host, port)) {
        return problem_with(problem, "HVN_RELAY_SERVER",
                            "'" + relay + "' is not HOST or HOST:PORT (a port from 1 to 65535)");
    }
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
    std::string etc = fill("HVN_GLOBAL_ETC_DIR", RELAYTOOL_DEFAULT_ETC_DIR);
    while (etc.size() > 1 && etc.back() == '/') etc.pop_back();
    tool["HVN_GLOBAL_ETC_DIR"] = etc;
    out.tool_path = value_of(env, "RELAYTOOL_PATH");
    if (out.tool_path.empty()) out.tool_path = RELAYTOOL_DEFAULT_TOOL;

    if (command == Command::Run) {
        int ftp_port = 0;
        std::string ftp = fill("HVN_FTP_PORT", "0");
        if (!parse_port(ftp, -1, ftp_port)) {
            return problem_with(problem, "HVN_FTP_PORT",
                                "'" + ftp + "' is not -1 (paused), 0 (own listener) or a port");
        }
        const std::pair<const char*, double*> bounds[] = {
            {"RELAYTOOL_BACKOFF_MIN", &out.backoff_min},
            {"RELAYTOOL_BACKOFF_MAX", &out.backoff_max},
        };
        for (const auto& [name, bound] : bounds) {
            std::string text = value_of(env, name);
            if (!text.empty() && !parse_seconds(text, *bound)) {
                return problem_with(
                    problem, name,
                    "'" + text + "' is not a number of seconds above 0 and at most 86400");
            }
        }
        if (out.backoff_min > out.backoff_max) {
            return problem_with(problem, "RELAYTOOL_BACKOFF_MIN",
                                "larger than RELAYTOOL_BACKOFF_MAX");
        }
        if (!resolve_gridftp_settings(env, facts, out, problem)) return false;
    }
    for (const char* name : kNotForTheTool) tool.erase(name);
    for (const char* name : kGridftpSettingNames) tool.erase(name);
    out.tool_env = tool;
    return true;
}

bool check_settings_on_system(const Settings& settings, Command command, SettingProblem& problem) {
    if (command == Command::Status) return true;
    const EnvMap& env = settings.tool_env;
    if (!check_program("RELAYTOOL_PATH", settings.tool_path, problem)) return false;
    for (const char* name : {"HVN_PDEATH_PATH", "HVN_SSH_PATH", "HVN_GRIDFTP_PATH"}) {
        if (!check_program(name, value_of(env, name), problem)) return false;
    }
    std::string key = value_of(env, "HVN_GLOBAL_ETC_DIR") + "/relay-anonymous.key";
    std::string contents;
    if (int err = hvlib::try_read_file_contents(key, contents); err != 0) {
        return problem_with(problem, "HVN_GLOBAL_ETC_DIR",
                            hvlib::str_sprintf("cannot read %s: %s", key.c_str(),
                                               hvlib::get_strerror_string(err).c_str()));
    }
    const std::string& dir = settings.config_dir;
    if (int err = make_private_dirs(dir); err != 0) {
        return problem_with(problem, "HVN_CONFIG_DIR",
                            hvlib::str_sprintf("cannot create %s: %s", dir.c_str(),
                                               hvlib::get_strerror_string(err).c_str()));
    }
    if (access(dir.c_str(), W_OK | X_OK) != 0) {
        return problem_with(problem, "HVN_CONFIG_DIR", dir + " is not a writable directory");
    }
    return command != Command::Run || check_gridftp_settings_on_system(settings, problem);
}

}  // namespace endpoint
