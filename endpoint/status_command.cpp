#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "cli.h"
#include "file.h"
#include "lock.h"
#include "state.h"
#include "transfers.h"

namespace endpoint {

namespace {

using nlohmann::json;

constexpr size_t kTransfersShown = 5;

std::string text_of(const json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The state as the file has it, settled: "running" says whether a
// supervisor holds the directory (`holder`, its pid); one that does not
// has stopped, whatever its file says.
json settled_state(const std::string& config_dir, pid_t holder) {
    std::string text;
    hvlib::try_read_file_contents(state_file(config_dir), text);  // left empty on failure
    json state = json::parse(text, nullptr, false);  // without exceptions: a bad file is no state
    bool known = state.is_object() && state.contains("state");
    if (!known) state = json::object();
    if (holder != 0) {
        state["pid"] = holder;
        if (!known) state["state"] = "starting";
    } else if (text_of(state, "state") != "stopped") {  // killed, or the machine went down
        state.update({{"state", "stopped"},
                      {"reason", known ? "relaytool-endpoint ended without recording why (killed?)"
                                       : "no relaytool-endpoint has run for this configuration "
                                         "directory"},
                      {"workers", 0},
                      {"tool_pid", nullptr},
                      {"next_attempt", nullptr},
                      {"delay", nullptr}});
        state.erase("description");
    }
    WallClock::time_point since;
    state["paused_since"] = paused_since(config_dir, since) ? json(iso_time(since)) : json(nullptr);
    state["config_dir"] = config_dir;
    state["running"] = holder != 0;
    state["transfers"] = TransferHistory::load(config_dir);
    return state;
}

void print_for_a_person(const json& state) {
    if (state["running"].get<bool>()) {
        printf("relaytool-endpoint is running (pid %lld)\n", state["pid"].get<long long>());
    } else {
        printf("relaytool-endpoint is not running\n");
    }
    std::string description = text_of(state, "description"), reason = text_of(state, "reason");
    std::string failed;
    if (description.empty())
        description = text_of(state, "state") + (reason.empty() ? "" : ": " + reason);
    if (const json& failure = state.value("last_failure", json()); failure.is_object()) {
        failed = text_of(failure, "class") + " at " + text_of(failure, "at") + ", " +
                 text_of(failure, "end") + "\n               " + text_of(failure, "line");
    }
    const json& transfers = state["transfers"];
    std::string last;
    for (size_t i = transfers.size() > kTransfersShown ? transfers.size() - kTransfersShown : 0;
         i < transfers.size(); ++i) {
        last += (last.empty() ? "" : "\n               ") + text_of(transfers[i], "at") + " " +
                describe_transfer(transfers[i]);
    }
    const std::pair<const char*, std::string> lines[] = {
        {"configuration:", text_of(state, "config_dir")},
        {"state:", description},
        {"since:", text_of(state, "since")},
        {"paused since:", text_of(state, "paused_since")},
        {"restarts:", state.contains("restarts") ? state["restarts"].dump() : ""},
        {"last failure:", failed},
        {"transfers:", last},
    };
    for (const auto& [label, text] : lines) {
        if (!text.empty()) printf("%-15s%s\n", label, text.c_str());
    }
}

}  // namespace

int show_status(const std::string& config_dir, bool as_json) {
    // The lock is tested before the file is read: a supervisor that ends in
    // between then shows as running with its last state, never as a stale
    // "running" state without a supervisor.
    json state = settled_state(config_dir, config_lock_holder(config_dir));
    if (as_json) {
        printf("%s\n", state.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    } else {
        print_for_a_person(state);
    }
    return state["running"].get<bool>() ? 0 : 3;
}

}  // namespace endpoint
