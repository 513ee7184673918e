#pragma once

#include "common/outlets.h"
#include "common/terminalchannel.h"
#include "common/textlabel.h"
#include "kitchen/kitchenprintservice.h"
#include "net/httpserver.h"
#include "refusedorigins.h"
#include "requestrouting.h"

#include <QHostAddress>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QVariant>
#include <optional>

class QWebSocket;

// The POS gateway. Serves ws://127.0.0.1:49999/: every text frame is routed, terminal
// requests to the channel the settings make active, and every answer a channel gives is
// written back to the POS as compact JSON.
// Only one POS is served at a time, and the most recent sender wins: when another
// connection sends a frame, the previous one gets a close frame and stops receiving. If it
// sends again before it has closed its side, it takes the role back in the same way.
class WebSocketViewController : public QObject {
    Q_OBJECT
public:
    static constexpr quint16 defaultPort = 49999;

    explicit WebSocketViewController(quint16 port = defaultPort, QObject *parent = nullptr);
    ~WebSocketViewController() override;

    void viewDidLoad();
    void startWebSocketServer();
    void acceptTextFrame(QWebSocket *session, const QString &text);
    // The channels terminal requests go to, and whose answers come back here.
    void setTerminalChannels(const TerminalChannels &terminals);
    // An answer for the POS that spoke last. Safe from any thread: the answer goes to the
    // session held when it is given, even if another POS takes over before the write runs.
    void deliverAnswer(const TerminalAnswer &answer);
    // The page was shown: the allowed origins may have been changed from a terminal.
    void viewDidAppear();

    // The page's buttons. "Pin" adds the connected POS's origin to WEBSOCKET_ALLOWED_ORIGINS
    // and closes every connection the list no longer allows; "clear" removes the list.
    void pinOriginClicked();
    void clearOriginsClicked();
    // The Origin header of the POS the page shows: the connection that sent the latest
    // frame, or else the latest to connect. An empty text: it sent none. Nothing: no POS.
    std::optional<QString> posOrigin();

    HttpServer server;
    // The POS that receives responses. Once a POS has sent a frame, a session stays held
    // even after that connection goes away: responses meant for it are then lost rather
    // than delivered to some other page that never asked. Guarded by sessionMutex, since
    // answers are given from the channels' threads.
    QPointer<QWebSocket> wsSession;
    bool sessionHeld = false;
    KitchenPrintService kitchenPrint;
    TextLabel *websocketLabel = nullptr;
    TextLabel *posConnectionLabel = nullptr;
    // The page's origin controls; a controller without a page (the tests') has none.
    // posConnectionLabel keeps the page's own text; the connected POS's origin has a label
    // of its own.
    TextLabel *posOriginLabel = nullptr;
    TextLabel *allowedOriginsLabel = nullptr;
    TextLabel *refusedOriginsLabel = nullptr;
    ControlOutlet *pinOriginButton = nullptr;
    ControlOutlet *clearOriginsButton = nullptr;
    RefusedOrigins refusedOrigins;

    static inline const QString noOriginText = QStringLiteral("no Origin header");

    // With HOLD_UNDELIVERED_ANSWERS, an answer that finds no POS waits this long at most.
    static constexpr qint64 heldAnswerLifetimeMs = 24LL * 60 * 60 * 1000;
    static bool holdUndeliveredAnswers();

signals:
    // The connected POS or the allowed origins changed; posOrigin() tells the new state.
    void originStateChanged();

private:
    void writeResponse(const QPointer<QWebSocket> &session, const QString &text);
    // Held answers go to `socket` (the newest connection asked for them) after its handshake
    // is out, one per turn of the event loop.
    void deliverHeldAnswers(QWebSocket *socket);
    void deliverNextHeldAnswer();
    QWebSocket *newestOpenConnection() const;
    QHostAddress listenAddress() const;
    bool originAllowed(const QByteArray &origin);
    // `what` starts the line: a refused handshake, or a page let in earlier and now closed.
    void noteRefused(const QString &origin, const QString &what);
    void pinFirstOrigin(const QString &origin);
    void closeConnectionsNotAllowed();
    QWebSocket *posSocket();
    void showOriginState();
    void showRefusedOrigins();

    quint16 port;
    QList<QPointer<QWebSocket>> openConnections; // upgraded and not yet gone, oldest first
    QMutex sessionMutex;
    TerminalChannels channels;
    QPointer<QWebSocket> heldAnswersTarget;
    bool heldAnswerQueued = false;
    QSet<QString> notPinned; // origins WEBSOCKET_PIN_FIRST_ORIGIN has said it will not pin
};
