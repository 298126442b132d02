// The GET command set: "/tuning/device?id=-1&cmd=<n>", commands to the panel and to the engine.
#pragma once

#include <string>

#include "http/http_answer.h"

// Runs device command n ("/tuning/device?id=-1&cmd=<n>") and writes its answer.
void run_command(int n, const std::string& target, AnswerStream& answer);

// True, after a console line for a write still waiting, when a configuration
// write must be refused: no valid device, or a frame of an earlier write (its
// EC included) still waits to be written. Command 31 and a snapshot's write
// then answer json_error and change nothing.
bool config_write_refused();
// What command 31 does once accepted: cfg_send queued as configuration frames
// and the end command, status 5, the progress at 0. False, with nothing
// changed, when the frames would take the queues past their byte limit.
bool start_config_write();
