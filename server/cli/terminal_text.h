// Text for a terminal: every character that a terminal would act on instead
// of showing is written as an escape, so that names and messages from the
// account files, the event log or a client cannot move the cursor, change
// colours, set the window title or start a convincing fake line.
//
// Escaped: the C0 controls (newline and tab included), DEL and the C1
// controls as \u00XX; the invisible direction marks and overrides (U+061C,
// U+200E, U+200F, U+202A..U+202E, U+2066..U+2069) and the line and paragraph
// separators (U+2028, U+2029) as \uXXXX; bytes that are not UTF-8 as \xNN.
//
// TerminalSafeJson does the same to JSON text, keeping its newlines (JSON
// writers escape those inside strings) and writing a byte that is not UTF-8
// as \u00NN, so that the output stays valid JSON.
//
// Thread-safety: reentrant.
#ifndef TAVO_SERVER_TERMINAL_TEXT_H_
#define TAVO_SERVER_TERMINAL_TEXT_H_

#include <string>

namespace tavo_server {

std::string TerminalSafe(const std::string& text);
std::string TerminalSafeJson(const std::string& json);

}  // namespace tavo_server

#endif  // TAVO_SERVER_TERMINAL_TEXT_H_
