// The seven events a socket control raises, delivered on the user-interface thread.
#pragma once

#include <cstdint>
#include <string>

namespace core {

class ISocketEvents {
public:
    virtual ~ISocketEvents() = default;

    // A client asks to connect while the control listens; `requestId` is handed back to Accept.
    virtual void OnConnectionRequest(std::int32_t requestId) = 0;
    // Bytes arrived on the connection; GetData fetches them.
    virtual void OnDataArrival(std::int32_t bytesTotal) = 0;
    // Part of a queued send went out.
    virtual void OnSendProgress(std::int32_t bytesSent, std::int32_t bytesRemaining) = 0;
    // Everything queued has been sent.
    virtual void OnSendComplete() = 0;
    // The connection failed (never raised for the peer's orderly close).
    virtual void OnError(std::int32_t number, const std::string& description) = 0;
    // The peer closed the connection.
    virtual void OnClose() = 0;
    // An outgoing connection completed (the servers never connect out).
    virtual void OnConnect() = 0;
};

}  // namespace core
