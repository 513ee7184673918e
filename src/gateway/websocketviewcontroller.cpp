#include "websocketviewcontroller.h"

#include "common/fatal.h"
#include "common/log.h"
#include "common/settings.h"
#include "kitchen/printerallowlist.h"
#include "originpolicy.h"
#include "requestrouting.h"
#include "store/pendingstore.h"

#include <QThread>
#include <QWebSocket>
#include <chrono>

WebSocketViewController::WebSocketViewController(quint16 port, QObject *parent)
    : QObject(parent), server(QStringLiteral("teranocounter")), port(port) {}

WebSocketViewController::~WebSocketViewController() {
    // Sockets still open go with the server, after the members their signals would reach.
    for (const QPointer<QWebSocket> &socket : std::as_const(openConnections))
        if (socket)
            disconnect(socket, nullptr, this, nullptr);
}

void WebSocketViewController::viewDidLoad() {
    // A store that cannot be opened is said at start, not at the first lost answer.
    if (holdUndeliveredAnswers())
        PendingStore::shared();
    PrinterAllowList::reportInvalidEntries();
    OriginPolicy::reportNullEntry();
    startWebSocketServer();
    showOriginState();
    showRefusedOrigins();
}

void WebSocketViewController::viewDidAppear() {
    showOriginState();
}

void WebSocketViewController::startWebSocketServer() {
    server.addWebSocketRoute(HttpServer::exactPath("/"), [this](QWebSocket *socket) {
        const QString origin = socket->origin();
        if (!origin.isEmpty()) {
            // Judged again now that the handshake is complete: another page may have been
            // pinned while this one's was under way.
            if (!OriginPolicy::allows(origin)) {
                noteRefused(origin, QStringLiteral("WebSocket connection closed"));
                socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
                return;
            }
            pinFirstOrigin(origin);
        }
        connect(socket, &QWebSocket::textMessageReceived, this,
                [this, socket](const QString &text) { acceptTextFrame(socket, text); });
        // Binary frames are not part of the POS protocol: no answer, and the sender is
        // not remembered.
        openConnections.append(socket);
        connect(socket, &QObject::destroyed, this, [this] {
            openConnections.removeAll(nullptr);
            showOriginState();
        });
        showOriginState();
        if (holdUndeliveredAnswers())
            deliverHeldAnswers(socket);
    });
    server.setOriginCheck([this](const QByteArray &origin) { return originAllowed(origin); });

    if (!server.listen(listenAddress(), port)) {
        logLine(QStringLiteral("WebSocket server could not start on port %1: %2")
                    .arg(port)
                    .arg(server.errorString()));
        return;
    }
    // Two checks of one label, on purpose: each write to the page's label carries its own,
    // so that moving either write elsewhere takes its stop along. A page without the label
    // stops at the first.
    if (!websocketLabel)
        fatalStop(QStringLiteral("the gateway page has no status label"));
    websocketLabel->setStringValue(QStringLiteral("서비스 시작"));
    if (!websocketLabel)
        fatalStop(QStringLiteral("the gateway page has no status label"));
    websocketLabel->setTextColor(Qt::green);
}

void WebSocketViewController::acceptTextFrame(QWebSocket *session, const QString &text) {
    // A page let in before its origin left the list (changed from a terminal, say) is let
    // go at its next frame, which goes nowhere.
    const QString origin = session->origin();
    if (!origin.isEmpty() && !OriginPolicy::allows(origin)) {
        noteRefused(origin, QStringLiteral("WebSocket connection closed"));
        session->close(QWebSocketProtocol::CloseCodePolicyViolated);
        return;
    }
    bool changed = false;
    {
        QMutexLocker lock(&sessionMutex);
        if (wsSession != session) {
            // The displaced POS hears about it before the new one is remembered. Its side is
            // still read until it answers the close frame or hangs up: a frame it sent
            // before it saw the close frame takes the role back, as any later sender does.
            if (wsSession)
                server.closeKeepingReadOpen(wsSession);
            wsSession = session;
            changed = true;
        }
        sessionHeld = true;
    }
    if (changed)
        showOriginState();
    handleRequest(text, channels);
}

void WebSocketViewController::setTerminalChannels(const TerminalChannels &terminals) {
    for (TerminalChannel *old : {channels.tcp, channels.usb})
        if (old)
            disconnect(old, &TerminalChannel::answerReady, this, nullptr);
    channels = terminals;
    // Direct: the answer is judged on the thread that produced it, against the session held
    // at that moment, as deliverAnswer says.
    for (TerminalChannel *channel : {channels.tcp, channels.usb})
        if (channel)
            connect(channel, &TerminalChannel::answerReady, this, &WebSocketViewController::deliverAnswer,
                    Qt::DirectConnection);
}

void WebSocketViewController::deliverAnswer(const TerminalAnswer &answer) {
    QPointer<QWebSocket> session;
    {
        QMutexLocker lock(&sessionMutex);
        if (!sessionHeld && !holdUndeliveredAnswers())
            return; // no POS has spoken yet: nobody to answer
        session = wsSession;
    }
    const QString text = answer.json();

    // The response goes to the session held when it was posted, even if another POS
    // takes over before the write runs.
    if (QThread::currentThread() == thread())
        writeResponse(session, text);
    else // sockets belong to the gateway's thread; queued calls keep the posting order
        QMetaObject::invokeMethod(
            this, [this, session, text] { writeResponse(session, text); }, Qt::QueuedConnection);
}

void WebSocketViewController::writeResponse(const QPointer<QWebSocket> &session, const QString &text) {
    if (session && session->state() == QAbstractSocket::ConnectedState) {
        session->sendTextMessage(text);
        return;
    }
    // No POS to take it. Normally it is lost; a shop that keeps undelivered answers gets it
    // on the next POS connection, or on one that is open already.
    if (!holdUndeliveredAnswers())
        return;
    PendingStore *store = PendingStore::shared();
    if (!store)
        return;
    const bool kept = store->addAnswer(text.toUtf8(), PendingStore::nowMs()) != 0;
    if (QWebSocket *open = newestOpenConnection()) {
        // One the file would not take (a full disk) can still reach a page that is open.
        if (kept)
            deliverHeldAnswers(open);
        else
            open->sendTextMessage(text);
    }
}

QWebSocket *WebSocketViewController::newestOpenConnection() const {
    for (auto it = openConnections.crbegin(); it != openConnections.crend(); ++it)
        if (*it && (*it)->state() == QAbstractSocket::ConnectedState)
            return *it;
    return nullptr;
}

void WebSocketViewController::deliverHeldAnswers(QWebSocket *socket) {
    // A page that connects while answers are going out to another does not take the rest
    // of them: one POS gets them all, in order.
    const bool delivering = heldAnswerQueued && heldAnswersTarget &&
                            heldAnswersTarget->state() == QAbstractSocket::ConnectedState;
    if (!delivering)
        heldAnswersTarget = socket;
    if (heldAnswerQueued)
        return;
    heldAnswerQueued = true;
    QMetaObject::invokeMethod(this, &WebSocketViewController::deliverNextHeldAnswer, Qt::QueuedConnection);
}

// One answer per turn of the event loop: a handshake or a frame that comes meanwhile is
// served between two of them, and a crash can repeat at most the one whose removal it cut.
void WebSocketViewController::deliverNextHeldAnswer() {
    heldAnswerQueued = false;
    PendingStore *store = PendingStore::shared();
    QWebSocket *socket = heldAnswersTarget;
    if (!socket || socket->state() != QAbstractSocket::ConnectedState)
        socket = newestOpenConnection(); // the page went half way through: the rest go to the newest
    if (!store || !socket)
        return; // what is left waits for the next connection
    const QList<PendingStore::Answer> next = store->answers(1);
    if (next.isEmpty())
        return;
    const PendingStore::Answer &answer = next.first();
    const qint64 age = PendingStore::nowMs() - answer.storedAtMs;
    if (age > heldAnswerLifetimeMs)
        logLine(QStringLiteral("a held terminal answer was dropped unread after %1").arg(describeAge(age)));
    else
        socket->sendTextMessage(QString::fromUtf8(answer.json));
    store->removeAnswer(answer.id);
    deliverHeldAnswers(socket);
}

bool WebSocketViewController::holdUndeliveredAnswers() {
    return Settings::shared().isOn(Settings::Key::HoldUndeliveredAnswers);
}

QHostAddress WebSocketViewController::listenAddress() const {
    if (Settings::shared().isOn(Settings::Key::WebSocketListenAll))
        return QHostAddress::Any;
    return QHostAddress::LocalHost;
}

bool WebSocketViewController::originAllowed(const QByteArray &origin) {
    const QString text = QString::fromUtf8(origin);
    if (OriginPolicy::allows(text))
        return true;
    noteRefused(text, QStringLiteral("WebSocket handshake refused"));
    return false;
}

void WebSocketViewController::noteRefused(const QString &origin, const QString &what) {
    const qint64 nowMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now().time_since_epoch())
                             .count();
    const QDateTime now = QDateTime::currentDateTime();
    if (refusedOrigins.note(origin, nowMs, now))
        logLine(QStringLiteral("%1 at %2: origin %3 is not in %4")
                    .arg(what, now.toOffsetFromUtc(now.offsetFromUtc()).toString(Qt::ISODate),
                         RefusedOrigins::shown(origin),
                         Settings::name(Settings::Key::WebSocketAllowedOrigins)));
    showRefusedOrigins();
}

void WebSocketViewController::pinFirstOrigin(const QString &origin) {
    if (!OriginPolicy::pinFirstOrigin() || !OriginPolicy::allowedOrigins().isEmpty())
        return;
    // Any site can make a page whose origin is "null" (a sandboxed frame), and a client that
    // is not a browser can send anything: neither is pinned without the owner.
    std::optional<QString> problem = OriginPolicy::originProblem(origin);
    if (!problem && origin == QLatin1String("null"))
        problem = QStringLiteral("local files and sandboxed frames of any site send it; pin it from the "
                                 "popover if the POS is a local file");
    if (problem) {
        if (!notPinned.contains(origin) && notPinned.size() < 100) {
            notPinned.insert(origin);
            logLine(QStringLiteral("%1: origin %2 is not pinned: %3")
                        .arg(Settings::name(Settings::Key::WebSocketPinFirstOrigin),
                             RefusedOrigins::shown(origin), singleLine(*problem)));
        }
        return;
    }
    OriginPolicy::allowOrigin(origin);
    logLine(singleLine(QStringLiteral("%1: pinned %2, the only origin allowed from now on (%3)")
                           .arg(Settings::name(Settings::Key::WebSocketPinFirstOrigin), origin,
                                Settings::name(Settings::Key::WebSocketAllowedOrigins))));
    // Pages of other sites that were let in while nothing was pinned go now.
    closeConnectionsNotAllowed();
    showOriginState();
}

void WebSocketViewController::pinOriginClicked() {
    const std::optional<QString> origin = posOrigin();
    if (!origin || origin->isEmpty() || OriginPolicy::originProblem(*origin))
        return;
    if (OriginPolicy::allowOrigin(*origin))
        logLine(singleLine(QStringLiteral("%1: %2 allowed from the popover")
                               .arg(Settings::name(Settings::Key::WebSocketAllowedOrigins), *origin)));
    closeConnectionsNotAllowed();
    showOriginState();
}

void WebSocketViewController::clearOriginsClicked() {
    if (!OriginPolicy::allowedOrigins().isEmpty()) {
        OriginPolicy::clearAllowedOrigins();
        logLine(QStringLiteral("%1 cleared from the popover: every origin is allowed")
                    .arg(Settings::name(Settings::Key::WebSocketAllowedOrigins)));
    }
    showOriginState();
}

void WebSocketViewController::closeConnectionsNotAllowed() {
    const QList<QPointer<QWebSocket>> open = openConnections;
    for (const QPointer<QWebSocket> &socket : open)
        if (socket && !socket->origin().isEmpty() && !OriginPolicy::allows(socket->origin()))
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
}

QWebSocket *WebSocketViewController::posSocket() {
    {
        QMutexLocker lock(&sessionMutex);
        if (wsSession && wsSession->state() == QAbstractSocket::ConnectedState)
            return wsSession;
    }
    for (auto it = openConnections.crbegin(); it != openConnections.crend(); ++it)
        if (*it && (*it)->state() == QAbstractSocket::ConnectedState)
            return *it;
    return nullptr;
}

std::optional<QString> WebSocketViewController::posOrigin() {
    if (QWebSocket *socket = posSocket())
        return socket->origin();
    return std::nullopt;
}

void WebSocketViewController::showOriginState() {
    const QStringList allowed = OriginPolicy::allowedOrigins();
    const std::optional<QString> origin = posOrigin();
    if (posOriginLabel) {
        if (!origin)
            posOriginLabel->setStringValue(QStringLiteral("POS Origin: 연결 없음"));
        else
            posOriginLabel->setStringValue(
                QStringLiteral("POS Origin: %1")
                    .arg(origin->isEmpty() ? noOriginText : RefusedOrigins::shown(*origin)));
    }
    if (allowedOriginsLabel)
        allowedOriginsLabel->setStringValue(
            allowed.isEmpty() ? QStringLiteral("허용된 Origin: 모두 (목록 없음)")
                              : QStringLiteral("허용된 Origin: %1").arg(allowed.join(QStringLiteral(", "))));
    if (pinOriginButton)
        pinOriginButton->setEnabled(origin && !origin->isEmpty() && !OriginPolicy::originProblem(*origin) &&
                                    !allowed.contains(*origin));
    if (clearOriginsButton)
        clearOriginsButton->setEnabled(!allowed.isEmpty());
    emit originStateChanged();
}

void WebSocketViewController::showRefusedOrigins() {
    if (!refusedOriginsLabel)
        return;
    const QList<RefusedOrigins::Entry> &latest = refusedOrigins.latest();
    if (latest.isEmpty()) {
        refusedOriginsLabel->setStringValue(QStringLiteral("거부된 연결 없음"));
        return;
    }
    QStringList lines{QStringLiteral("거부된 연결 (최근):")};
    for (const RefusedOrigins::Entry &entry : latest)
        lines << QStringLiteral("%1  %2").arg(entry.at.toString(QStringLiteral("HH:mm:ss")), entry.origin);
    refusedOriginsLabel->setStringValue(lines.join(u'\n'));
    refusedOriginsLabel->setTextColor(Qt::darkRed);
}
