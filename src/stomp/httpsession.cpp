#include "httpsession.h"

#include "common/log.h"
#include "net/httpserver.h"
#include "stompframe.h"

#include "common/textform.h"

#include <QWebSocket>

HttpSession::HttpSession(const QString &sessionId, QObject *parent) : QObject(parent), id(sessionId) {}

HttpSession::~HttpSession() {
    logLine(QStringLiteral("HTTP session closed: ") + id);
}

HttpResponse HttpSession::handleHttpRequest(const HttpRequest &request) {
    logLine(QStringLiteral("[") + id + QStringLiteral("]: Http request"));
    // The body is taken byte for byte: a leading byte order mark stays part of the text, and
    // anything that is not well-formed UTF-8 is refused rather than patched.
    if (const std::optional<QString> text = strictUtf8(request.body)) {
        logLine(QStringLiteral("body: ") + *text);
        enqueue([this, value = *text] { setAttachment(value); });
    }
    return HttpResponse::ok(QStringLiteral("Done (session:%1)\n").arg(id).toUtf8());
}

void HttpSession::handleWebSocketText(QWebSocket *session, const QString &text) {
    logLine(QStringLiteral("\n[") + id + QStringLiteral("]: received WebSocket packet: \n") + text);
    // The connection may be gone by the time the frame's turn comes.
    enqueue([this, session = QPointer<QWebSocket>(session), text] { process(session, text); });
}

void HttpSession::process(QWebSocket *session, const QString &text) {
    connection = session;

    const std::optional<STOMPFrame> frame = STOMPFrame::parse(text);
    if (!frame) {
        reply(session, STOMPFrame::error());
        return;
    }
    // SEND never gets a receipt, and the others always do, whether or not the client
    // asked for one: clients written against this server rely on exactly that.
    switch (frame->command) {
    case STOMPFrame::CommandType::Connect:
        reply(session, STOMPFrame::connected(id, currentAttachment));
        break;
    case STOMPFrame::CommandType::Disconnect:
        logLine(QStringLiteral("Disconnected"));
        if (release)
            release();
        // The owner has let go of the session, but it is deleted only once control is back
        // in the event loop, so the receipt still goes out from here.
        reply(session, STOMPFrame::receipt());
        break;
    case STOMPFrame::CommandType::Send:
        logLine(QStringLiteral("something happened"));
        break;
    case STOMPFrame::CommandType::Subscribe:
        subscribed = true;
        reply(session, STOMPFrame::receipt());
        break;
    case STOMPFrame::CommandType::Unsubscribe:
        subscribed = false;
        reply(session, STOMPFrame::receipt());
        break;
    }
}

void HttpSession::setAttachment(const QString &value) {
    currentAttachment = value;
    if (subscribed)
        reply(connection, STOMPFrame::message(value));
}

void HttpSession::enqueue(std::function<void()> work) {
    QMetaObject::invokeMethod(this, std::move(work), Qt::QueuedConnection);
}

void HttpSession::reply(QWebSocket *session, const QString &frame) {
    // A client that has gone away simply misses the frame; there is nobody to tell.
    if (session && session->isValid())
        session->sendTextMessage(frame);
}
