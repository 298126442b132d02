// The GET command set: "/tuning/device?id=-1&cmd=<n>", commands to the panel and to the engine.
#pragma once

#include <string>

#include "http/http_answer.h"

// Runs device command n ("/tuning/device?id=-1&cmd=<n>") and writes its answer.
void run_command(int n, const std::string& target, AnswerStream& answer);
