#pragma once

#include <QProcess>
#include <QString>

// Starts an X server of the test's own on a display nobody uses (the server picks it and
// writes its number on standard output) and returns the display's name (":N"), or an empty
// text when it did not start or open one. It waits without an event loop, so a test can have
// its server before its QApplication connects to it. Without -noreset the server resets
// whenever its last client leaves, and refuses the next one for a moment: the window
// manager, right after the first xdotool call.
inline QString startXvfb(QProcess &server, const QString &screenSize) {
    server.start(QStringLiteral("Xvfb"),
                 {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                  QStringLiteral("0"), screenSize + QStringLiteral("x24"), QStringLiteral("-nolisten"),
                  QStringLiteral("tcp"), QStringLiteral("-noreset")});
    if (!server.waitForStarted(5000))
        return {};
    QByteArray number;
    while (!number.contains('\n') && server.waitForReadyRead(10000))
        number += server.readAllStandardOutput();
    bool ok = false;
    number.trimmed().toInt(&ok);
    return ok ? u':' + QString::fromLatin1(number.trimmed()) : QString();
}
