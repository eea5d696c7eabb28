// The TCP socket control over Qt: one object that listens and then carries the one accepted connection,
// raising the seven socket events on the Qt event loop's thread. Bytes pass unchanged both ways.
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QTcpSocket>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "core/Error.h"
#include "core/ISocketControl.h"

class QTcpServer;

namespace platform::net {

class SocketControl : public QObject, public core::ISocketControl {
public:
    // Receives an error that escaped an event handler. The control has no policy of its own: the application
    // decides what such an error means (it ends the program; a test records the error).
    using UnhandledErrorHandler = std::function<void(const core::Error& error)>;

    explicit SocketControl(UnhandledErrorHandler unhandled, QObject* parent = nullptr);
    ~SocketControl() override;
    SocketControl(const SocketControl&) = delete;
    SocketControl& operator=(const SocketControl&) = delete;

    // The address Listen() binds; 127.0.0.1 unless set.
    void SetListenAddress(const QHostAddress& address);

    void SetEventSink(core::ISocketEvents* sink) override;
    std::int32_t State() const override;
    void SetLocalPort(std::int32_t port) override;
    std::int32_t LocalPort() const override;
    void Listen() override;
    void Accept(std::int32_t requestId) override;
    void Close() override;
    std::string GetData() override;
    void SendData(const std::string& data) override;
    // Keeps `data` and hands it to the connection a slice at a time, so that a long text is never copied
    // whole into the connection's buffer; the first bytes leave at once.
    void SendShared(std::shared_ptr<const std::string> data) override;
    // Reads a piece whenever the connection's buffer runs low, so that no more than about one slice of the
    // text is in memory at a time. A piece that cannot be read breaks the connection (the error event), so
    // that the client never takes a cut text for a whole one.
    void SendPieces(core::TextPiecesPtr pieces) override;

private:
    void OnNewConnection();
    void OnReadyRead();
    void OnBytesWritten(qint64 bytes);
    void OnSocketError(QAbstractSocket::SocketError error);
    void OnDisconnected();
    void CatchUpAfterAccept(QTcpSocket* socket);
    // Tops the connection's buffer up from the queued texts, to one slice or everything.
    void Feed(bool everything = false);
    // Pushes the first bytes of what was just queued out at once (SendShared, SendPieces).
    void PushQueued();
    // Ends the connection whose queued text could not be read, with the error event at the next turn.
    void FailSend(const core::Error& error);
    // Raises the send progress (and, when nothing is left to send, completion) events for bytes that have gone.
    void RaiseSendEvents(qint64 bytes, std::int32_t remaining);
    // Reports the bytes that left while SendShared pushed them, if not reported yet.
    void ReportEarlyWrites();
    // Bytes queued here and in the connection's buffer, not yet handed to the system, as far as known: a text
    // read in pieces counts only the pieces already read.
    std::int32_t BytesRemaining() const;
    // Whether nothing at all is left to send, texts still to be read included.
    bool NothingLeft() const;
    // Runs `step` at the next turn of the event loop if the connection still carries `socket` then.
    template <typename Step>
    void Later(QTcpSocket* socket, Step step);
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
    // A queued text: whole (`text`), or read in pieces (`pieces`, with the piece at hand in `text`).
    struct Outgoing {
        std::shared_ptr<const std::string> text;
        core::TextPiecesPtr pieces;
    };
    // Texts not yet handed to the connection, the first one from outgoingOffset_ on.
    std::deque<Outgoing> outgoing_;
    std::size_t outgoingOffset_ = 0;
    std::int64_t outgoingBytes_ = 0;
    // While SendShared pushes the first bytes out: the connection's signals then wait for the next turn.
    bool sending_ = false;
    qint64 writtenWhileSending_ = 0;
    std::int32_t remainingAfterSend_ = 0;
    bool earlyWritesQueued_ = false;
    std::int32_t state_ = kClosed;
    std::int32_t localPort_ = 0;
    bool errorRaised_ = false;
    UnhandledErrorHandler unhandled_;
};

}  // namespace platform::net
