#include "LineEditor.h"

#include <cstdlib>
#include <editline/readline.h>

namespace {

void (*takeLine)(const char *line) = nullptr;

void takeEdited(char *line)
{
    if (line && *line)
        add_history(line);
    takeLine(line);
    std::free(line);
}

} // namespace

bool LineEditor::isAvailable()
{
    return true;
}

void LineEditor::begin(const char *prompt, void (*take)(const char *line))
{
    takeLine = take;
    rl_catch_signals = 0; // the program handles them itself
    rl_callback_handler_install(prompt, takeEdited);
}

void LineEditor::readAvailable()
{
    rl_callback_read_char();
}

void LineEditor::showAgain()
{
    rl_forced_update_display();
}

void LineEditor::end()
{
    rl_callback_handler_remove();
}
