#include "platform/net/SocketControl.h"

#include <QTcpServer>
#include <QTimer>

#include <algorithm>
#include <limits>
#include <utility>

#include "core/ISocketEvents.h"
#include "core/Trap.h"

namespace platform::net {
namespace {

constexpr std::int32_t kHighestPort = std::numeric_limits<quint16>::max();
// How much of a queued text the connection's own buffer holds at a time.
constexpr qint64 kSliceBytes = qint64{1} << 20;

[[noreturn]] void RaiseWrongState() { core::Raise(core::ErrorNumber::kWrongProtocolState, "SocketControl"); }

}  // namespace

SocketControl::SocketControl(UnhandledErrorHandler unhandled, QObject* parent)
    : QObject(parent), unhandled_(std::move(unhandled)) {}

SocketControl::~SocketControl() {
    // Nothing may reach a sink from a control that is going away.
    sink_ = nullptr;
    if (socket_) socket_->disconnect(this);
    if (pending_) pending_->disconnect(this);
}

void SocketControl::SetListenAddress(const QHostAddress& address) { listenAddress_ = address; }

void SocketControl::SetEventSink(core::ISocketEvents* sink) { sink_ = sink; }

std::int32_t SocketControl::State() const { return state_; }

void SocketControl::SetLocalPort(std::int32_t port) { localPort_ = port; }

std::int32_t SocketControl::LocalPort() const { return localPort_; }

void SocketControl::Listen() {
    if (state_ != kClosed) RaiseWrongState();
    if (localPort_ < 0 || localPort_ > kHighestPort) core::Raise(core::ErrorNumber::kInvalidProcedureCall);
    DropPending();
    auto* server = new QTcpServer(this);
    // The frame takes one client at a time; queueing more in Qt would only delay their refusal.
    server->setMaxPendingConnections(1);
    if (!server->listen(listenAddress_, static_cast<quint16>(localPort_))) {
        const QAbstractSocket::SocketError error = server->serverError();
        const std::string text = server->errorString().toStdString();
        delete server;
        if (error == QAbstractSocket::AddressInUseError) core::Raise(core::ErrorNumber::kAddressInUse, "SocketControl");
        if (error == QAbstractSocket::SocketAccessError)
            core::Raise(core::ErrorNumber::kPermissionDenied, "SocketControl");
        throw core::Error(core::ErrorNumber::kInvalidProcedureCall, "SocketControl", text);
    }
    connect(server, &QTcpServer::newConnection, this, &SocketControl::OnNewConnection);
    server_ = server;
    // Port 0 asks for any free port; report the one actually bound.
    localPort_ = server_->serverPort();
    state_ = kListening;
}

void SocketControl::Accept(std::int32_t requestId) {
    if (!pending_ || requestId != pendingId_) core::Raise(core::ErrorNumber::kInvalidProcedureCall, "SocketControl");
    // Nothing listens while a client is connected.
    CloseListener();
    if (socket_) Release(socket_);
    socket_ = pending_;
    pending_ = nullptr;
    received_.clear();
    errorRaised_ = false;
    // A response that goes out in several writes (a message read in pieces) must not have its last bytes
    // wait for the client's acknowledgement of the ones before: the client is waiting for them.
    socket_->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket_, &QTcpSocket::readyRead, this, &SocketControl::OnReadyRead);
    connect(socket_, &QTcpSocket::bytesWritten, this, &SocketControl::OnBytesWritten);
    connect(socket_, &QTcpSocket::errorOccurred, this, &SocketControl::OnSocketError);
    connect(socket_, &QTcpSocket::disconnected, this, &SocketControl::OnDisconnected);
    state_ = kConnected;
    // Bytes or a close that came before Accept raised no signal we were connected to.
    QTimer::singleShot(0, socket_, [this, socket = socket_] { CatchUpAfterAccept(socket); });
}

void SocketControl::CatchUpAfterAccept(QTcpSocket* socket) {
    if (socket != socket_) return;
    if (socket_->bytesAvailable() > 0) OnReadyRead();
    if (socket_ == socket && socket_->state() == QAbstractSocket::UnconnectedState) OnDisconnected();
}

void SocketControl::Close() {
    CloseListener();
    if (socket_) {
        // What was queued still goes out before the connection closes, as the connection's buffer does.
        Feed(true);
        Release(socket_);
        socket_ = nullptr;
    }
    outgoing_.clear();
    outgoingOffset_ = 0;
    outgoingBytes_ = 0;
    writtenWhileSending_ = 0;
    // A pending connection survives: the frame closes the listener before it accepts.
    received_.clear();
    errorRaised_ = false;
    state_ = kClosed;
}

std::string SocketControl::GetData() {
    std::string data(received_.constData(), static_cast<std::size_t>(received_.size()));
    received_.clear();
    return data;
}

void SocketControl::SendData(const std::string& data) { SendShared(std::make_shared<const std::string>(data)); }

void SocketControl::SendShared(std::shared_ptr<const std::string> data) {
    if (!socket_ || state_ != kConnected) RaiseWrongState();
    if (!data || data->empty()) return;
    outgoingBytes_ += static_cast<std::int64_t>(data->size());
    outgoing_.push_back(Outgoing{std::move(data), nullptr});
    PushQueued();
}

void SocketControl::SendPieces(core::TextPiecesPtr pieces) {
    if (!socket_ || state_ != kConnected) RaiseWrongState();
    if (!pieces) return;
    outgoing_.push_back(Outgoing{nullptr, std::move(pieces)});
    PushQueued();
}

void SocketControl::PushQueued() {
    Feed();
    // The first bytes leave now, not at the next turn of the event loop, so that the client is receiving
    // while the caller goes on (a long response is logged after it has been queued). What the connection
    // reports in the meantime reaches the sink at the next turn, as it would have without this push.
    QTcpSocket* socket = socket_;
    if (!socket) return;
    sending_ = true;
    socket->flush();
    sending_ = false;
    if (socket_ != socket || writtenWhileSending_ == 0) return;
    remainingAfterSend_ = BytesRemaining();
    if (earlyWritesQueued_) return;
    earlyWritesQueued_ = true;
    QTimer::singleShot(0, this, [this, socket] {
        earlyWritesQueued_ = false;
        if (socket_ != socket) return;
        // The push may have emptied the connection's buffer, after which it reports nothing more: top it up.
        Feed();
        ReportEarlyWrites();
    });
}

void SocketControl::ReportEarlyWrites() {
    // After an error the error is the one event left for the connection.
    if (writtenWhileSending_ == 0 || errorRaised_) return;
    RaiseSendEvents(std::exchange(writtenWhileSending_, 0), remainingAfterSend_);
}

void SocketControl::RaiseSendEvents(qint64 bytes, std::int32_t remaining) {
    QTcpSocket* socket = socket_;
    RaiseEvent([&](core::ISocketEvents& sink) { sink.OnSendProgress(static_cast<std::int32_t>(bytes), remaining); });
    if (socket_ == socket && remaining == 0 && NothingLeft()) {
        RaiseEvent([](core::ISocketEvents& sink) { sink.OnSendComplete(); });
    }
}

void SocketControl::Feed(bool everything) {
    // A connection that is gone takes nothing more: a text still to be read is not read for nothing.
    if (everything && socket_ && socket_->state() != QAbstractSocket::ConnectedState) return;
    while (socket_ && !outgoing_.empty() && (everything || socket_->bytesToWrite() < kSliceBytes)) {
        Outgoing& front = outgoing_.front();
        if (front.pieces && (!front.text || outgoingOffset_ == front.text->size())) {
            // The piece at hand has gone: read the next one, or drop the text at its end.
            auto piece = std::make_shared<std::string>();
            bool more = false;
            try {
                more = front.pieces->Next(*piece);
            } catch (...) {
                FailSend(core::CurrentError());
                return;
            }
            outgoingOffset_ = 0;
            if (!more) {
                outgoing_.pop_front();
                continue;
            }
            outgoingBytes_ += static_cast<std::int64_t>(piece->size());
            front.text = std::move(piece);
        }
        const std::string& text = *front.text;
        const std::size_t left = text.size() - outgoingOffset_;
        const std::size_t slice = everything ? left : std::min(left, static_cast<std::size_t>(kSliceBytes));
        socket_->write(text.data() + outgoingOffset_, static_cast<qint64>(slice));
        outgoingBytes_ -= static_cast<std::int64_t>(slice);
        outgoingOffset_ += slice;
        if (outgoingOffset_ == text.size() && !front.pieces) {
            outgoing_.pop_front();
            outgoingOffset_ = 0;
        }
    }
}

void SocketControl::FailSend(const core::Error& error) {
    QTcpSocket* socket = socket_;
    outgoing_.clear();
    outgoingOffset_ = 0;
    outgoingBytes_ = 0;
    // Broken off, not closed: what the client has is visibly cut (no end line follows).
    errorRaised_ = true;
    state_ = kError;
    socket->abort();
    const std::int32_t number = error.Number();
    const std::string& text = error.Description();
    QTimer::singleShot(0, this, [this, socket, number, text] {
        if (socket_ == socket) RaiseEvent([&](core::ISocketEvents& sink) { sink.OnError(number, text); });
    });
}

std::int32_t SocketControl::BytesRemaining() const {
    const std::int64_t total = (socket_ ? socket_->bytesToWrite() : 0) + outgoingBytes_;
    return static_cast<std::int32_t>(std::min<std::int64_t>(total, std::numeric_limits<std::int32_t>::max()));
}

bool SocketControl::NothingLeft() const { return outgoing_.empty() && (!socket_ || socket_->bytesToWrite() == 0); }

template <typename Step>
void SocketControl::Later(QTcpSocket* socket, Step step) {
    QTimer::singleShot(0, this, [this, socket, step = std::move(step)]() mutable {
        if (socket_ == socket) step();
    });
}

void SocketControl::OnNewConnection() {
    if (!server_) return;
    QTcpSocket* socket = server_->nextPendingConnection();
    if (!socket) return;
    // Taken out of the server at once: closing the listener deletes the connections it still holds.
    socket->setParent(this);
    DropPending();
    pending_ = socket;
    pendingId_ = nextRequestId_++;
    const std::int32_t id = pendingId_;
    RaiseEvent([id](core::ISocketEvents& sink) { sink.OnConnectionRequest(id); });
}

void SocketControl::OnReadyRead() {
    if (!socket_) return;
    received_.append(socket_->readAll());
    if (received_.isEmpty()) return;
    const auto total = static_cast<std::int32_t>(received_.size());
    RaiseEvent([total](core::ISocketEvents& sink) { sink.OnDataArrival(total); });
}

void SocketControl::OnBytesWritten(qint64 bytes) {
    if (!socket_) return;
    if (sending_) {
        writtenWhileSending_ += bytes;
        return;
    }
    QTcpSocket* socket = socket_;
    // What left during SendShared is reported first, as it went first.
    ReportEarlyWrites();
    if (socket_ != socket) return;
    Feed();
    RaiseSendEvents(bytes, BytesRemaining());
}

void SocketControl::OnSocketError(QAbstractSocket::SocketError error) {
    // Qt reports the peer's orderly close as an error too; only the Close event may surface for it.
    if (error == QAbstractSocket::RemoteHostClosedError || errorRaised_ || !socket_) return;
    if (sending_) {
        Later(socket_, [this, error] { OnSocketError(error); });
        return;
    }
    errorRaised_ = true;
    state_ = kError;
    const std::int32_t number = error == QAbstractSocket::SocketTimeoutError ? core::ErrorNumber::kSocketTimedOut
                                                                             : core::ErrorNumber::kSocketConnectionAborted;
    const std::string text = socket_->errorString().toStdString();
    RaiseEvent([&](core::ISocketEvents& sink) { sink.OnError(number, text); });
}

void SocketControl::OnDisconnected() {
    // After an error the connection is broken, not closed: the error was the one event for it.
    if (errorRaised_ || !socket_) return;
    if (sending_) {
        Later(socket_, [this] { OnDisconnected(); });
        return;
    }
    // Bytes that came with the close are still delivered first.
    if (socket_->bytesAvailable() > 0) OnReadyRead();
    if (!socket_ || errorRaised_) return;
    RaiseEvent([](core::ISocketEvents& sink) { sink.OnClose(); });
}

void SocketControl::CloseListener() {
    if (!server_) return;
    server_->disconnect(this);
    server_->close();
    // May be inside the server's own newConnection signal.
    server_->deleteLater();
    server_ = nullptr;
}

void SocketControl::DropPending() {
    if (!pending_) return;
    pending_->abort();
    pending_->deleteLater();
    pending_ = nullptr;
}

void SocketControl::Release(QTcpSocket* socket) {
    socket->disconnect();
    if (socket->state() == QAbstractSocket::UnconnectedState) {
        socket->deleteLater();
        return;
    }
    // Let queued bytes go out before the socket goes away.
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    socket->disconnectFromHost();
}

template <typename Event>
void SocketControl::RaiseEvent(Event&& event) {
    if (!sink_) return;
    try {
        event(*sink_);
    } catch (...) {
        unhandled_(core::CurrentError());
    }
}

}  // namespace platform::net
