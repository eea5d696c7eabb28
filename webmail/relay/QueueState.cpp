#include "webmail/relay/QueueState.h"

#include <charconv>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "webmail/relay/SyncedFile.h"
#include "webmail/text/Lines.h"

namespace webmail::relay {

namespace {

template <typename Number>
bool ReadNumber(std::string_view text, Number& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

// A value written on one line: line breaks and other control characters become spaces.
std::string OneLine(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if ((c >= 0 && c < ' ') || c == 127) c = ' ';
    }
    return out;
}

}  // namespace

std::string QueueState::Serialize() const {
    std::string out = "attempts " + std::to_string(attempts) + "\n";
    out += "queued " + std::to_string(queued) + "\n";
    out += "next " + std::to_string(nextTry) + "\n";
    out += std::string("sending ") + (sending ? "yes" : "no") + "\n";
    for (const std::string& r : done) out += "done " + OneLine(r) + "\n";
    if (!lastReply.empty()) out += "reply " + OneLine(lastReply) + "\n";
    return out;
}

std::optional<QueueState> QueueState::Parse(std::string_view text) {
    QueueState state;
    while (!text.empty()) {
        const std::string_view line = text::TakeLine(text);
        const std::size_t space = line.find(' ');
        const std::string_view key = line.substr(0, space);
        const std::string_view value = space == std::string_view::npos ? std::string_view() : line.substr(space + 1);
        bool ok = true;
        if (key == "attempts") {
            ok = ReadNumber(value, state.attempts);
        } else if (key == "queued") {
            ok = ReadNumber(value, state.queued);
        } else if (key == "next") {
            ok = ReadNumber(value, state.nextTry);
        } else if (key == "sending") {
            ok = value == "yes" || value == "no";
            state.sending = value == "yes";
        } else if (key == "done") {
            state.done.emplace_back(value);
        } else if (key == "reply") {
            state.lastReply = value;
        }
        if (!ok) return std::nullopt;
    }
    return state;
}

std::optional<QueueState> QueueState::Load(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return Parse(text);
}

void QueueState::Save(const std::filesystem::path& file) const {
    const std::filesystem::path temp = file.parent_path() / (file.filename().string() + ".new");
    WriteSynced(temp, Serialize());
    std::error_code ec;
    std::filesystem::rename(temp, file, ec);
    if (ec) {
        std::filesystem::remove(temp, ec);
        throw std::runtime_error("cannot write " + file.string());
    }
}

std::chrono::seconds QueueState::Pause(unsigned failures, std::chrono::seconds first, std::chrono::seconds max) {
    std::chrono::seconds pause = first;
    for (unsigned i = 1; i < failures && pause < max; ++i) pause *= 2;
    return pause < max ? pause : max;
}

}  // namespace webmail::relay
