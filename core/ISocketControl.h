// A TCP socket control that both listens and carries the one accepted connection. Bytes pass unchanged
// both ways: text here is 8-bit, one char per byte.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/ITextPieces.h"

namespace core {

class ISocketEvents;

class ISocketControl {
public:
    // Values of State() (states, not error numbers: kError is the state of a broken connection); the frame only
    // ever compares with kClosed.
    static constexpr std::int32_t kClosed = 0;
    static constexpr std::int32_t kListening = 2;
    static constexpr std::int32_t kConnected = 7;
    static constexpr std::int32_t kError = 9;

    virtual ~ISocketControl() = default;

    // Where the events go; nullptr to stop delivering them.
    virtual void SetEventSink(ISocketEvents* sink) = 0;

    virtual std::int32_t State() const = 0;
    // The port Listen() binds; 0 after closing.
    virtual void SetLocalPort(std::int32_t port) = 0;
    virtual std::int32_t LocalPort() const = 0;
    // Starts listening on LocalPort(); a port this user may not use raises error 10013, a port in use 10048.
    virtual void Listen() = 0;
    // Takes the pending connection `requestId` onto this control; nothing listens afterwards.
    virtual void Accept(std::int32_t requestId) = 0;
    // Closes the listener or the connection.
    virtual void Close() = 0;
    // Everything received and not yet fetched.
    virtual std::string GetData() = 0;
    // Queues `data` for sending.
    virtual void SendData(const std::string& data) = 0;
    // Queues `data` for sending without copying it: the control keeps the text until it has gone out.
    // NOLINTNEXTLINE(performance-unnecessary-value-param): a sink; overrides keep the pointer
    virtual void SendShared(std::shared_ptr<const std::string> data) { SendData(*data); }
    // Queues the text `pieces` reads for sending, read a piece at a time as the connection takes it, so that
    // a long text never lies in memory whole.
    virtual void SendPieces(TextPiecesPtr pieces) { SendData(ReadAllPieces(*pieces)); }
};

}  // namespace core
