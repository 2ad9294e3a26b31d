#pragma once

/*! The whole program, from its command line to its exit status. */
int runPanel(int argc, char *argv[]);
