// The TCP socket control over Qt: one object that listens and then carries the one accepted connection,
// raising the seven socket events on the Qt event loop's thread. Bytes pass unchanged both ways.
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>

#include <cstdint>
#include <functional>
#include <string>

#include "core/Error.h"
#include "core/ISocketControl.h"

class QTcpServer;

namespace platform::net {

class SocketControl : public QObject, public core::ISocketControl {
public:
    // Receives an error that escaped an event handler; it must end the program or record the error.
    using UnhandledErrorHandler = std::function<void(const core::Error& error)>;

    explicit SocketControl(QObject* parent = nullptr);
    ~SocketControl() override;
    SocketControl(const SocketControl&) = delete;
    SocketControl& operator=(const SocketControl&) = delete;

    // The address Listen() binds; 127.0.0.1 unless set.
    void SetListenAddress(const QHostAddress& address);
    // Replaces what happens to an error that leaves an event handler (default: message, exit status 1).
    void SetUnhandledErrorHandler(UnhandledErrorHandler handler);

    void SetEventSink(core::ISocketEvents* sink) override;
    std::int32_t State() const override;
    void SetLocalPort(std::int32_t port) override;
    std::int32_t LocalPort() const override;
    void Listen() override;
    void Accept(std::int32_t requestId) override;
    void Close() override;
    std::string GetData() override;
    void SendData(const std::string& data) override;

private:
    void OnNewConnection();
    void OnReadyRead();
    void OnBytesWritten(qint64 bytes);
    void OnSocketError(QAbstractSocket::SocketError error);
    void OnDisconnected();
    void CatchUpAfterAccept(QTcpSocket* socket);
    void CloseListener();
    void DropPending();
    static void Release(QTcpSocket* socket);

    // Delivers one event to the sink; an error leaving the sink goes to the unhandled-error handler.
    template <typename Event>
    void RaiseEvent(Event&& event);

    core::ISocketEvents* sink_ = nullptr;
    QHostAddress listenAddress_{QHostAddress::LocalHost};
    QTcpServer* server_ = nullptr;
    QTcpSocket* pending_ = nullptr;
    std::int32_t pendingId_ = 0;
    std::int32_t nextRequestId_ = 1;
    QTcpSocket* socket_ = nullptr;
    QByteArray received_;
    std::int32_t state_ = kClosed;
    std::int32_t localPort_ = 0;
    bool errorRaised_ = false;
    UnhandledErrorHandler unhandled_;
};

}  // namespace platform::net
