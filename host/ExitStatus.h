#pragma once

/*! What a wrong command line ends with; a failure ends with EXIT_FAILURE. */
inline constexpr int usageError = 2;
/*! What a program that a signal ended adds to its number. */
inline constexpr int signalBase = 128;
