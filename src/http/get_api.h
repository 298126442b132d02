// The GET API: JSON queries, static files and the device command set.
#pragma once

#include <sstream>
#include <string>

// Answers one GET request target (path and query, not decoded).
void parse_get_query(std::string& target, std::stringstream& answer);

// Runs device command n ("/tuning/device?id=-1&cmd=<n>") and writes its answer.
void run_command(int n, std::string& target, std::stringstream& answer);
