#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QWebSocket>
#include <functional>
#include <optional>

struct HttpRequest;
struct HttpResponse;

// The STOMP state of one test client, reachable two ways: STOMP frames over WebSocket,
// and plain HTTP requests whose body becomes the session's attachment (pushed to the
// WebSocket side as a MESSAGE once the client has subscribed).
//
// All work of a session (frames and attachment updates) runs one item at a time, in the
// order it was handed in, on the session's own queue: each item is a queued call on this
// object, and Qt delivers queued calls to one object in posting order. So an attachment
// posted after a SUBSCRIBE was handed in is pushed to the client, and the fields below are
// only ever touched from that queue.
class HttpSession : public QObject {
    Q_OBJECT
public:
    using Release = std::function<void()>;

    explicit HttpSession(const QString &sessionId, QObject *parent = nullptr);
    ~HttpSession() override;

    // Supplied by the owner: called when the client sends DISCONNECT.
    void setRelease(Release operation) { release = std::move(operation); }

    // Answers at once; the attachment itself is set later, on the session's queue.
    HttpResponse handleHttpRequest(const HttpRequest &request);
    void handleWebSocketText(QWebSocket *session, const QString &text);

    // One STOMP frame of this session; runs on the session's queue.
    void process(QWebSocket *session, const QString &text);

    // Stores the new attachment and pushes it to a subscribed, still connected client.
    void setAttachment(const QString &value);

    const QString &sessionId() const { return id; }
    const std::optional<QString> &attachment() const { return currentAttachment; }
    bool isSubscribed() const { return subscribed; }
    QWebSocket *wsSession() const { return connection; }

private:
    // The session's processing queue.
    void enqueue(std::function<void()> work);
    void reply(QWebSocket *session, const QString &frame);

    const QString id;
    // Weak: a closed connection is not kept alive by its session.
    QPointer<QWebSocket> connection;
    std::optional<QString> currentAttachment;
    bool subscribed = false;
    Release release;
};
