// tarnview's --lang and --compat options: the kernel's user-interface language, which picks the header
// block's labels, and whether documents are repaired.
#ifndef TARN_TOOLS_TARNVIEW_LANGUAGE_H_
#define TARN_TOOLS_TARNVIEW_LANGUAGE_H_

#include <string>

#include "tarnpst/tarnpst.h"
#include "tools/tarnview/arguments.h"

namespace tarnview {

// Applies a --lang option: the kernel's user-interface language for this call, a hexadecimal Windows
// LANGID ("0x0407"; the "0x" may be left out). Without the option the kernel keeps the language it took
// from the environment. False after printing the reason.
bool ApplyLanguage(const ParsedArguments& parsed, const char* command);

// Applies the profile: repaired documents, unless --compat asks for the toolkit's contract documents
// byte for byte.
void ApplyProfile(const ParsedArguments& parsed);

// The library's settings from --lang and --compat, for the commands that call it rather than the
// exported entry points. False after printing the reason.
bool SettingsFrom(const ParsedArguments& parsed, const char* command, tarnpst::Settings* settings);

// The languages the header block has labels of, one "  0x0409  English" line each, for --help.
std::string LanguageHelp();

}  // namespace tarnview

#endif  // TARN_TOOLS_TARNVIEW_LANGUAGE_H_
