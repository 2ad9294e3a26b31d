#pragma once

/*!
    Editing and history for a line that is typed on a terminal. Where the library for it was not there
    at build time, it only shows the prompt.
*/
namespace LineEditor {

/*! Whether a line can be edited. */
bool isAvailable();

/*! Shows \a prompt. \a take gets the line, or null at the end of the input, from readAvailable(). */
void begin(const char *prompt, void (*take)(const char *line));
/*! Reads what was typed. */
void readAvailable();
/*! Shows the prompt again, with what was typed so far. */
void showAgain();
void end();

} // namespace LineEditor
