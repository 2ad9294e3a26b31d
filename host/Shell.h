#pragma once

#include "Commands.h"

class Interrupt;

/*!
    Reads and runs commands until the end of the input; links stay up between commands. Returns the
    status of the last command that failed; on a terminal always 0, because the user saw the error.
*/
int runShell(CorvelKX::Host *host, Waiter *waiter, Output *output, Interrupt *interrupt,
             const Waits &waits);
