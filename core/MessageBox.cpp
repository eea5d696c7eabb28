#include "core/MessageBox.h"

#include <cstdio>

namespace core::MessageBox {
namespace {

Handler& Current() {
    static Handler handler = [](const std::string& text) {
        std::fwrite(text.data(), 1, text.size(), stderr);
        std::fputc('\n', stderr);
        std::fflush(stderr);
    };
    return handler;
}

}  // namespace

void Show(const std::string& text) { Current()(text); }

void SetHandler(Handler handler) { Current() = std::move(handler); }

}  // namespace core::MessageBox
