#pragma once

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

struct CommandLine {
    bool headless = false;
    bool printSettings = false;
    bool help = false;
    bool version = false;                           // --version
    bool listPending = false;                       // --pending
    bool clearPending = false;                      // --pending --clear
    bool lockDown = false;                          // --lock-down
    bool browserPolicy = false;                     // --browser-policy
    bool removeBrowserPolicy = false;               // --browser-policy --remove
    QStringList policyOrigins;                      // the origins after --browser-policy
    QList<QPair<QString, QString>> settingsToWrite; // from --set KEY=VALUE, in order
    QStringList originsToAllow;                     // from --allow-origin, in order; "" clears the list
    QStringList warnings;                           // said on standard error; the command still runs
    QString error;                                  // non-empty when the arguments cannot be used
};

CommandLine parseCommandLine(const QStringList &arguments);
QString usageText();
QString versionText(); // "teranocounter <version>\n"
