// The GET command set: "/tuning/device?id=-1&cmd=<n>", commands to the panel and to the engine.
#pragma once

#include <sstream>
#include <string>

// Runs device command n ("/tuning/device?id=-1&cmd=<n>") and writes its answer.
void run_command(int n, const std::string& target, std::stringstream& answer);

// True when a configuration write must be refused (no valid device): command
// 31 and a snapshot's write then answer json_error and change nothing.
bool config_write_refused();
// What command 31 does once accepted: status 5, the progress at 0, cfg_send
// queued as configuration frames and the end command.
void start_config_write();
