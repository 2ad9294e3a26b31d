#pragma once

/*! The exit status after a wrong command line; any other failure is EXIT_FAILURE. */
inline constexpr int usageError = 2;
/*! The exit status after signal N is signalBase + N. */
inline constexpr int signalBase = 128;
