#pragma once

// `teranocounter-devsim printer|terminal|serial ...`: parses the command line, starts the
// simulated device and runs until it is stopped. Returns the exit status.
int runDevsim(int argc, char **argv);
