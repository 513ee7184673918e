#include "pageserver.h"

#include <QFile>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslSocket>

PageServer::PageServer(Scheme scheme)
    : scheme(scheme),
      server(scheme == Scheme::Https ? std::make_unique<QSslServer>() : std::make_unique<QTcpServer>()) {}

void PageServer::serve(const QString &path, const QByteArray &body, const QByteArray &contentType) {
    resources.insert(path, {body, QString(), contentType});
}

void PageServer::serveFile(const QString &path, const QString &filePath, const QByteArray &contentType) {
    resources.insert(path, {QByteArray(), filePath, contentType});
}

QString PageServer::origin() const {
    return QStringLiteral("%1://127.0.0.1:%2")
        .arg(scheme == Scheme::Https ? QStringLiteral("https") : QStringLiteral("http"))
        .arg(port());
}

bool PageServer::makeCertificate() {
    // Qt cannot make a certificate itself; the openssl command can, in one call.
    if (!keys.isValid()) {
        lastError = QStringLiteral("cannot create a temporary folder for the certificate");
        return false;
    }
    const QString keyPath = keys.filePath(QStringLiteral("key.pem"));
    const QString certificatePath = keys.filePath(QStringLiteral("certificate.pem"));
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"),
                  {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                   QStringLiteral("rsa:2048"), QStringLiteral("-nodes"), QStringLiteral("-days"),
                   QStringLiteral("1"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
                   QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1"),
                   QStringLiteral("-keyout"), keyPath, QStringLiteral("-out"), certificatePath});
    if (!openssl.waitForFinished(30000) || openssl.exitStatus() != QProcess::NormalExit ||
        openssl.exitCode() != 0) {
        lastError = QStringLiteral("openssl could not make a certificate: %1 %2")
                        .arg(openssl.errorString(), QString::fromUtf8(openssl.readAll()).trimmed());
        return false;
    }
    QFile keyFile(keyPath), certificateFile(certificatePath);
    if (!keyFile.open(QIODevice::ReadOnly) || !certificateFile.open(QIODevice::ReadOnly)) {
        lastError = QStringLiteral("cannot read the certificate openssl made");
        return false;
    }
    const QSslKey key(keyFile.readAll(), QSsl::Rsa);
    const QSslCertificate certificate(certificateFile.readAll());
    if (key.isNull() || certificate.isNull()) {
        lastError = QStringLiteral("the certificate openssl made does not load");
        return false;
    }
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setPrivateKey(key);
    configuration.setLocalCertificate(certificate);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    auto *sslServer = static_cast<QSslServer *>(server.get());
    sslServer->setSslConfiguration(configuration);
    return true;
}

bool PageServer::listen() {
    if (scheme == Scheme::Https) {
        if (!QSslSocket::supportsSsl()) {
            lastError = QStringLiteral("Qt has no TLS backend here");
            return false;
        }
        if (!makeCertificate())
            return false;
        // A browser that gives up on the handshake must not leave the server stuck.
        static_cast<QSslServer *>(server.get())->setHandshakeTimeout(5000);
    }
    const auto serveSocket = [this](QTcpSocket *socket) {
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QObject::destroyed, this, [this, socket] { heads.remove(socket); });
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
            QByteArray &head = heads[socket];
            head += socket->readAll();
            if (head.contains("\r\n\r\n"))
                answer(socket, std::exchange(head, QByteArray()));
        });
    };
    // Emitted once a socket is ready to read: for HTTPS, after its TLS handshake.
    connect(server.get(), &QTcpServer::pendingConnectionAvailable, this, [this, serveSocket] {
        while (QTcpSocket *socket = server->nextPendingConnection())
            serveSocket(socket);
    });
    if (!server->listen(QHostAddress::LocalHost)) {
        lastError = QStringLiteral("cannot listen on 127.0.0.1: ") + server->errorString();
        return false;
    }
    return true;
}

void PageServer::answer(QTcpSocket *socket, const QByteArray &head) {
    const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
    QString path = requestLine.size() == 3 ? QString::fromLatin1(requestLine.at(1)) : QString();
    path = path.left(path.indexOf(u'?')); // a query string does not change the page
    asked << path;
    QByteArray status = "200 OK";
    QByteArray contentType = "text/plain";
    QByteArray body;
    if (requestLine.value(0) != "GET" || !resources.contains(path)) {
        status = "404 Not Found";
        body = "not found\n";
    } else {
        const Resource &resource = resources.value(path);
        contentType = resource.contentType;
        body = resource.body;
        if (!resource.filePath.isEmpty()) {
            QFile file(resource.filePath);
            if (file.open(QIODevice::ReadOnly)) {
                body = file.readAll();
            } else {
                status = "500 Internal Server Error";
                contentType = "text/plain";
                body = "cannot read " + resource.filePath.toUtf8() + '\n';
            }
        }
    }
    socket->write("HTTP/1.1 " + status + "\r\nContent-Type: " + contentType +
                  "\r\nCache-Control: no-store\r\nContent-Length: " + QByteArray::number(body.size()) +
                  "\r\nConnection: close\r\n\r\n" + body);
    socket->disconnectFromHost();
}
