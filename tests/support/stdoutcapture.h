#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>
#include <cstdio>
#include <unistd.h>

// Catches what the code under test prints on standard output (its diagnostics), so an
// in-process test can check the lines an engineer would see. Everything caught, the test
// framework's own messages included, is passed on to the real standard output when the
// capture ends, so nothing is hidden from the test log.
class StdoutCapture {
public:
    StdoutCapture() {
        std::fflush(stdout);
        saved = dup(STDOUT_FILENO);
        file = std::tmpfile();
        if (saved >= 0 && file)
            dup2(fileno(file), STDOUT_FILENO);
    }
    ~StdoutCapture() {
        const QByteArray caught = contents();
        std::fflush(stdout);
        if (saved >= 0) {
            dup2(saved, STDOUT_FILENO);
            close(saved);
        }
        if (file)
            std::fclose(file);
        std::fwrite(caught.constData(), 1, static_cast<size_t>(caught.size()), stdout);
        std::fflush(stdout);
    }
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    QStringList lines() const {
        QStringList all = QString::fromUtf8(contents()).split(u'\n');
        all.removeLast(); // after the last line feed: not a complete line
        return all;
    }

private:
    QByteArray contents() const {
        std::fflush(stdout);
        if (!file)
            return {};
        QByteArray bytes;
        char buffer[4096];
        for (off_t offset = 0;;) {
            const ssize_t n = pread(fileno(file), buffer, sizeof buffer, offset);
            if (n <= 0)
                break;
            bytes.append(buffer, n);
            offset += n;
        }
        return bytes;
    }

    int saved = -1;
    std::FILE *file = nullptr;
};
