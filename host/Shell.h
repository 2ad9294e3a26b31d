#pragma once

#include "Commands.h"

class Interrupt;

/*!
    The host's commands typed by hand, one after the other, with links that stand between them.
    Returns 0, or the status of the last command that failed where nobody watches (the input is no
    terminal).
*/
int runShell(CorvelKX::Host *host, Waiter *waiter, Output *output, Interrupt *interrupt,
             const Waits &waits);
