#include "LineEditor.h"

#include <cstdio>

namespace {

const char *shownPrompt = nullptr;

} // namespace

bool LineEditor::isAvailable()
{
    return false;
}

void LineEditor::begin(const char *prompt, void (* /*take*/)(const char *line))
{
    shownPrompt = prompt;
    showAgain();
}

void LineEditor::readAvailable() { }

void LineEditor::showAgain()
{
    std::fputs(shownPrompt, stdout);
    std::fflush(stdout);
}

void LineEditor::end() { }
