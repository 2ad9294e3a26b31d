#pragma once

/*! Runs the program: parses the command line, shows the window, returns the exit status. */
int runPanel(int argc, char *argv[]);
