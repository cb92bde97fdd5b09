// Text for a terminal: every character that a terminal would act on instead
// of showing is written as an escape, so that names and messages from the
// account files, the event log or a client cannot move the cursor, change
// colours, set the window title or start a convincing fake line.
//
// Escaped: the C0 controls (newline and tab included), DEL and the C1
// controls as \u00XX; the characters that show nothing or change how the
// text around them shows (the default-ignorable code points, such as the
// zero-width space and joiners, the soft hyphen, the direction marks and
// isolates, and the other format characters, the line and paragraph
// separators included) as \uXXXX (\UXXXXXXXX beyond U+FFFF; a UTF-16 pair
// in JSON); bytes that are not UTF-8 as \xNN.
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
