// Shared between the protocol fuzz target and its platform stand-ins.
#pragma once

#include <string>
#include <vector>

// Every request the tool queued for the ssh child, one entry per call.
extern std::vector<std::string> g_queued_input;
