#pragma once

#include <QHash>
#include <QSslServer>
#include <QTemporaryDir>
#include <QUrl>
#include <memory>

// A web site of the test's own on loopback, as a POS vendor's site would serve its page:
// plain HTTP, or HTTPS with a self-signed certificate made when it starts (the browser is
// then told to ignore certificate errors). Each path serves a fixed body; anything else is
// a 404. Every answer closes its connection, so a reload fetches the page again.
class PageServer : public QObject {
public:
    enum class Scheme { Http, Https };

    explicit PageServer(Scheme scheme = Scheme::Http);

    void serve(const QString &path, const QByteArray &body, const QByteArray &contentType);
    // Serves the file at `filePath` as it is on disk when the request comes.
    void serveFile(const QString &path, const QString &filePath, const QByteArray &contentType);

    // Listens on 127.0.0.1 on a port of its own; on failure error() says why.
    bool listen();
    quint16 port() const { return server->serverPort(); }
    QString origin() const;
    QUrl url(const QString &path = QStringLiteral("/")) const { return QUrl(origin() + path); }
    QString error() const { return lastError; }
    // The paths asked for, in order.
    QStringList requests() const { return asked; }

private:
    struct Resource {
        QByteArray body;
        QString filePath;
        QByteArray contentType;
    };

    bool makeCertificate();
    void answer(QTcpSocket *socket, const QByteArray &head);

    Scheme scheme;
    // A QSslServer encrypts every connection it takes, so plain HTTP needs a plain server.
    std::unique_ptr<QTcpServer> server;
    QTemporaryDir keys;
    QHash<QString, Resource> resources;
    QHash<QTcpSocket *, QByteArray> heads;
    QStringList asked;
    QString lastError;
};
