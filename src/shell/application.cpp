#include "application.h"

#include "commandline.h"
#include "gatewaypage.h"
#include "userdefaults.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QSystemTrayIcon>
#include <cstdio>

namespace {

void printLine(std::FILE *stream, const QString &text) {
    const QByteArray bytes = text.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

QString settingText(const QVariant &value) {
    if (value.typeId() == QMetaType::QStringList)
        return value.toStringList().join(QStringLiteral(", "));
    return value.toString();
}

int runSettingsChores(const CommandLine &line) {
    UserDefaults &defaults = UserDefaults::standard();
    for (const auto &[key, value] : line.settingsToWrite)
        defaults.setValue(key, value);
    if (line.printSettings) {
        QStringList keys = defaults.keys();
        keys.sort();
        for (const QString &key : keys)
            printLine(stdout, key + u'=' + settingText(defaults.value(key).value_or(QVariant())));
    }
    return 0;
}

// Qt wants a private runtime directory and complains on standard error when the session
// has none (a bare `su`, a container, a test with its own HOME). Make the one Qt would pick
// anyway, quietly, so standard error carries only what matters.
void ensureRuntimeDirectory() {
    if (!qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        return;
    const QString path = QDir::tempPath() + QStringLiteral("/runtime-") +
                         qEnvironmentVariable("USER", QStringLiteral("teranocounter"));
    QDir().mkpath(path);
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(path));
}

bool haveDisplay() {
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

} // namespace

int runTeranoCounter(int argc, char **argv) {
    // Diagnostics must reach a journal or a pipe line by line, not when a buffer fills.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const CommandLine line = parseCommandLine(arguments);
    if (!line.error.isEmpty()) {
        printLine(stderr, QStringLiteral("teranocounter: ") + line.error);
        return 2;
    }
    if (line.help) {
        std::fputs(usageText().toUtf8().constData(), stdout);
        return 0;
    }
    if (!line.settingsToWrite.isEmpty() || line.printSettings)
        return runSettingsChores(line);

    const bool headless = line.headless || !haveDisplay();
    if (headless) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        // The offscreen platform reports what it cannot do for windows nobody sees.
        QLoggingCategory::setFilterRules(QStringLiteral("qt.qpa.*=false"));
    }
    ensureRuntimeDirectory();
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);

    // The gateway page is created but never shown when there is no tray to show it from;
    // loading it starts the POS server either way.
    GatewayPage gatewayPage;
    return QApplication::exec();
}
