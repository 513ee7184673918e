#include "commandline.h"

CommandLine parseCommandLine(const QStringList &arguments) {
    CommandLine line;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (argument == QLatin1String("--headless")) {
            line.headless = true;
        } else if (argument == QLatin1String("--settings")) {
            line.printSettings = true;
        } else if (argument == QLatin1String("--pending")) {
            line.listPending = true;
        } else if (argument == QLatin1String("--clear")) {
            line.clearPending = true;
        } else if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            line.help = true;
        } else if (argument == QLatin1String("--set") || argument.startsWith(QLatin1String("--set="))) {
            QString assignment;
            if (argument == QLatin1String("--set")) {
                if (i + 1 >= arguments.size()) {
                    line.error = QStringLiteral("--set needs KEY=VALUE");
                    return line;
                }
                assignment = arguments[++i];
            } else {
                assignment = argument.mid(6);
            }
            const qsizetype equals = assignment.indexOf(u'=');
            if (equals <= 0) {
                line.error = QStringLiteral("--set needs KEY=VALUE, got \"%1\"").arg(assignment);
                return line;
            }
            line.settingsToWrite.append({assignment.left(equals), assignment.mid(equals + 1)});
        } else {
            line.error = QStringLiteral("unknown argument \"%1\" (try --help)").arg(argument);
            return line;
        }
    }
    if (line.clearPending && !line.listPending)
        line.error = QStringLiteral("--clear goes with --pending");
    return line;
}

QString usageText() {
    return QStringLiteral(
        "Usage: teranocounter [--headless] [--set KEY=VALUE]... [--settings] [--pending [--clear]]\n"
        "  --headless        run without a tray icon (also chosen when no system tray is available)\n"
        "  --set KEY=VALUE   write a setting and exit (repeatable), e.g. --set MAIN_INTERFACE=TCP\n"
        "  --settings        print the settings as KEY=VALUE lines, then exit\n"
        "  --pending         list the answers and kitchen orders waiting to be delivered, then exit\n"
        "  --pending --clear the same, then remove them\n");
}
