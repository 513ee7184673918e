#include "commandline.h"

#include "common/settings.h"
#include "gateway/originpolicy.h"
#include "teranoversion.h"

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
        } else if (argument == QLatin1String("--lock-down")) {
            line.lockDown = true;
        } else if (argument == QLatin1String("--browser-policy")) {
            line.browserPolicy = true;
            // The origins follow, up to the next option.
            while (i + 1 < arguments.size() && !arguments[i + 1].startsWith(u'-')) {
                const QString &origin = arguments[++i];
                // Checked as --allow-origin checks them: the policy names a site as the
                // browser sends its origin, and a form it never sends lets nothing through.
                if (const std::optional<QString> problem = OriginPolicy::originProblem(origin)) {
                    line.error = QStringLiteral("--browser-policy: ") + *problem;
                    return line;
                }
                if (origin == QLatin1String("null")) {
                    line.error = QStringLiteral("--browser-policy: null cannot be named in a policy; "
                                                "a local file's page needs none");
                    return line;
                }
                line.policyOrigins << origin;
            }
        } else if (argument == QLatin1String("--remove")) {
            line.removeBrowserPolicy = true;
        } else if (argument == QLatin1String("--clear")) {
            line.clearPending = true;
        } else if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            line.help = true;
        } else if (argument == QLatin1String("--version")) {
            line.version = true;
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
            const QString key = assignment.left(equals);
            const QString value = assignment.mid(equals + 1);
            // An origin list is checked as --allow-origin checks one origin: an entry no
            // browser sends would lock out the POS without a word.
            if (Settings::keyNamed(key) == Settings::Key::WebSocketAllowedOrigins)
                for (const QString &entry : value.split(u',')) {
                    if (entry.trimmed().isEmpty())
                        continue;
                    if (const std::optional<QString> problem = OriginPolicy::originProblem(entry.trimmed())) {
                        line.error = QStringLiteral("--set %1: %2").arg(key, *problem);
                        return line;
                    }
                    if (entry.trimmed() == QLatin1String("null") &&
                        !line.warnings.contains(OriginPolicy::nullWarning))
                        line.warnings << OriginPolicy::nullWarning;
                }
            line.settingsToWrite.append({key, value});
        } else if (argument == QLatin1String("--allow-origin") ||
                   argument.startsWith(QLatin1String("--allow-origin="))) {
            QString origin;
            if (argument == QLatin1String("--allow-origin")) {
                if (i + 1 >= arguments.size()) {
                    line.error = QStringLiteral("--allow-origin needs an origin, or '' to clear the list");
                    return line;
                }
                origin = arguments[++i];
            } else {
                origin = argument.mid(15);
            }
            // An origin that no browser sends would lock out the POS without a word.
            if (!origin.isEmpty())
                if (const std::optional<QString> problem = OriginPolicy::originProblem(origin)) {
                    line.error = QStringLiteral("--allow-origin: ") + *problem;
                    return line;
                }
            if (origin == QLatin1String("null") && !line.warnings.contains(OriginPolicy::nullWarning))
                line.warnings << OriginPolicy::nullWarning;
            line.originsToAllow << origin;
        } else {
            line.error = QStringLiteral("unknown argument \"%1\" (try --help)").arg(argument);
            return line;
        }
    }
    if (line.clearPending && !line.listPending)
        line.error = QStringLiteral("--clear goes with --pending");
    else if (line.removeBrowserPolicy && !line.browserPolicy)
        line.error = QStringLiteral("--remove goes with --browser-policy");
    else if (line.removeBrowserPolicy && !line.policyOrigins.isEmpty())
        line.error = QStringLiteral("--browser-policy --remove takes no origins");
    else if (line.browserPolicy &&
             (line.headless || line.printSettings || line.listPending || line.lockDown ||
              !line.settingsToWrite.isEmpty() || !line.originsToAllow.isEmpty()))
        line.error = QStringLiteral("--browser-policy goes alone (with --remove or its origins)");
    return line;
}

QString usageText() {
    return QStringLiteral(
        "Usage: teranocounter [--headless] [--set KEY=VALUE]... [--allow-origin ORIGIN]... [--settings]\n"
        "                     [--pending [--clear]] [--lock-down] [--browser-policy [ORIGIN... | --remove]]\n"
        "                     [--version] [--help]\n"
        "  --headless        run without a tray icon (also chosen when no system tray is available)\n"
        "  --set KEY=VALUE   write a setting and exit (repeatable), e.g. --set MAIN_INTERFACE=TCP\n"
        "  --allow-origin ORIGIN  let only pages from ORIGIN (and those already listed) connect,\n"
        "                    e.g. --allow-origin http://192.168.0.20:8080, then exit (repeatable);\n"
        "                    --allow-origin '' clears the list so that every page may connect\n"
        "  --settings        print the settings as KEY=VALUE lines, then exit\n"
        "  --pending         list the answers and kitchen orders waiting to be delivered, then exit\n"
        "  --pending --clear the same, then remove them\n"
        "  --lock-down       turn on the protections recommended for a shop, print each KEY=VALUE\n"
        "                    written, then exit: WEBSOCKET_PIN_FIRST_ORIGIN, TERMINAL_ANSWER_PEERS,\n"
        "                    KITCHEN_ALLOWED_PRINTERS, HOLD_UNDELIVERED_ANSWERS, KITCHEN_RETRY_MINUTES\n"
        "  --browser-policy ORIGIN...  let pages from ORIGIN open the service without a prompt in\n"
        "                    Chromium, Google Chrome, Microsoft Edge and Brave (the managed policy\n"
        "                    LocalNetworkAccessAllowedForUrls; a new list replaces the earlier one),\n"
        "                    print each file written, then exit; needs root. Without ORIGIN: the\n"
        "                    origins in WEBSOCKET_ALLOWED_ORIGINS\n"
        "  --browser-policy --remove  remove those policy files, then exit; needs root\n"
        "  --version         print the version, then exit\n"
        "  --help, -h        print this help, then exit\n");
}

QString versionText() {
    return QStringLiteral("teranocounter " TERANOCOUNTER_VERSION "\n");
}
