// How the window shows received bytes: as text a person can read, without changing what is logged.
#pragma once

#include <QString>

#include <string_view>

namespace app {

// Decodes `bytes` for display: each well-formed UTF-8 sequence as its character, every other byte as the
// Latin-1 character of the same value; CR LF becomes one line break.
QString DisplayText(std::string_view bytes);

// The same decoding, appended to `text`, for a text box that holds many lines: every line end (CR LF, or a
// lone CR or LF, each of which the box would break a line at) becomes a line separator (U+2028), except every
// `linesPerBlock`-th one counted by `sinceBlock`, which becomes a paragraph break ('\n'). The box shows the same
// lines either way, and gives the same plain text back, but lays out and indexes a paragraph at a time.
void AppendDisplayText(QString& text, std::string_view bytes, int linesPerBlock, int& sinceBlock);

}  // namespace app
