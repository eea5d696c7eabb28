// A modal message with an OK button, as the application shows it (a dialog in the window, standard error
// when headless). Lower layers call MessageBox::Show; the application installs how it is shown.
#pragma once

#include <functional>
#include <string>

namespace core::MessageBox {

using Handler = std::function<void(const std::string& text)>;

// Shows `text` and returns when the user has closed it.
void Show(const std::string& text);

// Replaces how messages are shown; the default writes the text and a newline to standard error.
void SetHandler(Handler handler);

}  // namespace core::MessageBox
