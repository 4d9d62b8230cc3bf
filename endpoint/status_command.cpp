#include <sys/types.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "file.h"
#include "lock.h"
#include "recorder.h"

namespace endpoint {

namespace {

using nlohmann::json;

constexpr int kNotRunning = 3;

// The state file as written, or an empty object if there is none (or it is
// not ours). Parsed without exceptions: a bad file is simply no state.
json read_state(const std::string& config_dir) {
    std::string text;
    if (hvlib::try_read_file_contents(StateRecorder::state_file(config_dir), text) != 0) {
        return json::object();
    }
    json state = json::parse(text, nullptr, false);
    return state.is_object() ? state : json::object();
}

std::string text_of(const json& state, const char* key) {
    auto it = state.find(key);
    return it != state.end() && it->is_string() ? it->get<std::string>() : std::string();
}

long long number_of(const json& state, const char* key) {
    auto it = state.find(key);
    return it != state.end() && it->is_number() ? it->get<long long>() : 0;
}

// Fills in what a missing or stale file leaves open, so that the object
// always has every key and says whether a supervisor runs.
void settle(json& state, pid_t holder, const std::string& config_dir) {
    for (const char* key : {"since", "last_failure", "next_attempt", "delay", "reason",
                            "exit_status", "tool_pid", "display_name", "web_url"}) {
        if (!state.contains(key)) state[key] = nullptr;
    }
    if (!state.contains("workers")) state["workers"] = 0;
    if (!state.contains("restarts")) state["restarts"] = 0;
    state["config_dir"] = config_dir;
    state["running"] = holder != 0;
    if (holder != 0) {
        state["pid"] = holder;
        if (text_of(state, "state").empty()) state["state"] = "starting";
        return;
    }
    if (!state.contains("pid")) state["pid"] = nullptr;
    if (text_of(state, "state").empty()) {
        state["state"] = "stopped";
        state["reason"] = "no relaytool-endpoint has run for this configuration directory";
    } else if (text_of(state, "state") != "stopped") {
        // It ended without a word: killed, or the machine went down.
        state["state"] = "stopped";
        state["reason"] = "relaytool-endpoint ended without recording why (killed?)";
    }
    state["workers"] = 0;
    state["tool_pid"] = nullptr;
    state["next_attempt"] = nullptr;
    state["delay"] = nullptr;
    state.erase("description");
}

void print_for_a_person(const json& state) {
    std::string phase = text_of(state, "state");
    if (state["running"].get<bool>()) {
        printf("relaytool-endpoint is running (pid %lld)\n", number_of(state, "pid"));
    } else {
        printf("relaytool-endpoint is not running\n");
    }
    printf("configuration: %s\n", text_of(state, "config_dir").c_str());
    std::string description = text_of(state, "description");
    if (description.empty() && !text_of(state, "reason").empty()) {
        description = phase + ": " + text_of(state, "reason");
    }
    printf("state:         %s\n", description.empty() ? phase.c_str() : description.c_str());
    if (!text_of(state, "since").empty())
        printf("since:         %s\n", text_of(state, "since").c_str());
    if (!text_of(state, "display_name").empty()) {
        printf("endpoint:      %s (%s)\n", text_of(state, "display_name").c_str(),
               text_of(state, "web_url").c_str());
    }
    printf("restarts:      %lld\n", number_of(state, "restarts"));
    const json& failure = state["last_failure"];
    if (failure.is_object()) {
        printf("last failure:  %s at %s, %s\n", text_of(failure, "class").c_str(),
               text_of(failure, "at").c_str(), text_of(failure, "end").c_str());
        if (!text_of(failure, "line").empty()) {
            printf("               %s\n", text_of(failure, "line").c_str());
        }
    }
    if (!text_of(state, "next_attempt").empty()) {
        printf("next attempt:  %s\n", text_of(state, "next_attempt").c_str());
    }
}

}  // namespace

int show_status(const std::string& config_dir, bool as_json) {
    // The lock is tested before the file is read: a supervisor that ends in
    // between then shows as running with its last state, never as a stale
    // "running" state without a supervisor.
    pid_t holder = config_lock_holder(config_dir);
    json state = read_state(config_dir);
    settle(state, holder, config_dir);
    if (as_json) {
        printf("%s\n", state.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    } else {
        print_for_a_person(state);
    }
    return holder != 0 ? 0 : kNotRunning;
}

}  // namespace endpoint
