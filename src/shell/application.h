#pragma once

// Runs the service (or one of its command-line chores) and returns the exit status.
int runTeranoCounter(int argc, char **argv);
