#include "userdefaults.h"

#include "log.h"
#include "textform.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QSettings>
#include <QThread>
#include <cerrno>
#include <ctime>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A read takes no lock: only a write does.
std::unique_ptr<QSettings> openAsIs() {
    auto settings =
        std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                    QStringLiteral("teranocounter"), QStringLiteral("teranocounter"));
    settings->sync();
    return settings;
}

// The settings hold the terminal's address and who may talk to the service: only the user
// may read or change them. A folder and file made before this was so are made private too.
void makePrivate(const QString &file) {
    const QByteArray folder = QFile::encodeName(QFileInfo(file).absolutePath());
    if (::mkdir(folder.constData(), 0700) != 0 && errno == ENOENT) {
        QDir().mkpath(QFileInfo(QFileInfo(file).absolutePath()).absolutePath());
        ::mkdir(folder.constData(), 0700);
    }
    // Only when the mode is not right already: a chmod changes the file's change time, which
    // is how a new version of the file is told, and every read would load it afresh.
    const auto restrict = [](const QByteArray &path, mode_t mode) {
        struct stat info {};
        if (::stat(path.constData(), &info) == 0 && (info.st_mode & 07777) != mode)
            ::chmod(path.constData(), mode);
    };
    restrict(folder, 0700);
    restrict(QFile::encodeName(file), 0600);
}

// A write takes a lock file beside the settings, and Qt writes the owner's process id into it
// right after creating it. A writer killed between the two (SIGKILL, a power cut) leaves the
// lock empty; Qt cannot tell whose it is and waits until it is 30 s old, so a restarted
// service would take connections and answer none for that long. The same goes for the
// ".rmlock" Qt takes while it removes the lock of an owner that has ended. A live writer fills
// its lock within microseconds: one still empty a quarter of a second after it was made is a
// leftover, and is removed. The wait is bounded and happens only when such a file is there.
void removeOwnerlessLocks(const QString &file) {
    constexpr qint64 leftoverAfterMs = 250;
    for (const QString &name : {file + QStringLiteral(".lock"), file + QStringLiteral(".lock.rmlock")}) {
        const QByteArray path = QFile::encodeName(name);
        QElapsedTimer waited;
        waited.start();
        for (;;) {
            struct stat info {};
            if (::lstat(path.constData(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size != 0)
                break;
            timespec now{};
            ::clock_gettime(CLOCK_REALTIME, &now);
            const qint64 ageMs =
                (now.tv_sec - info.st_mtim.tv_sec) * 1000 + (now.tv_nsec - info.st_mtim.tv_nsec) / 1000000;
            if (ageMs >= leftoverAfterMs || waited.elapsed() >= leftoverAfterMs) {
                ::unlink(path.constData());
                break;
            }
            QThread::msleep(5);
        }
    }
}

// Whether the file holds settings as an INI file does: UTF-8 text of section headers,
// comments and KEY=VALUE lines (a line ending in a backslash goes on in the next). QSettings
// says so itself only the first time a process reads a file, so the bytes are looked at
// here. A missing or empty file is fine: it is the defaults.
bool readableAsSettings(const QString &file) {
    QFile in(file);
    if (!in.exists() || !in.open(QIODevice::ReadOnly))
        return true; // nothing to lose; QSettings reports what it cannot open
    QByteArray bytes = in.readAll();
    if (bytes.startsWith("\xef\xbb\xbf")) // an editor's byte order mark
        bytes.remove(0, 3);
    if (bytes.contains('\0') || !strictUtf8(bytes))
        return false;
    bool continued = false;
    for (const QByteArray &raw : bytes.split('\n')) {
        const QByteArray line = raw.trimmed();
        const bool wasContinued = continued;
        continued = line.endsWith('\\');
        if (wasContinued || line.isEmpty() || line.startsWith(';') || line.startsWith('#') ||
            line.contains('='))
            continue;
        if (line.startsWith('[') && line.endsWith(']'))
            continue;
        return false;
    }
    return true;
}

// A file that is not settings at all (binary garbage, a half-written copy) would be
// rewritten with only the next key, losing whatever the owner could still recover from it.
// It is kept aside under a name of its own instead, with one line, and the service goes
// on from the defaults.
void setAsideUnreadable(const QString &file) {
    const QString aside = file + QStringLiteral(".unreadable-") +
                          QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss'Z'"));
    if (QFile::rename(file, aside))
        logLine(singleLine(QStringLiteral("settings file %1 cannot be read as settings: kept aside as %2; "
                                          "starting from the defaults")
                               .arg(file, aside)));
}

// A QSettings object is not meant to be shared between threads, so each use makes its
// own; Qt shares the parsed file between them and sync() re-reads it when it changed.
std::unique_ptr<QSettings> open() {
    static QMutex checking;
    QMutexLocker lock(&checking);
    auto settings = openAsIs();
    makePrivate(settings->fileName());
    removeOwnerlessLocks(settings->fileName());
    if (!readableAsSettings(settings->fileName())) {
        setAsideUnreadable(settings->fileName());
        settings = openAsIs();
    }
    return settings;
}

} // namespace

// Every request reads a few settings; parsing the file each time cost about 30 us a read.
// The values are kept and used again for as long as the file is the same version of it:
// a stat() per read still sees a change made by any other process at once.
struct UserDefaults::Cache {
    // What identifies one version of the settings file: every write (ours go through a new file
    // renamed into place; an editor's may rewrite it in place) changes the inode or the change
    // time, which no program can set back.
    struct FileVersion {
        bool exists = false;
        ino_t inode = 0;
        off_t size = 0;
        timespec modified{};
        timespec changed{};

        static FileVersion of(const QByteArray &path) {
            struct stat info {};
            FileVersion version;
            if (::stat(path.constData(), &info) != 0)
                return version;
            version.exists = true;
            version.inode = info.st_ino;
            version.size = info.st_size;
            version.modified = info.st_mtim;
            version.changed = info.st_ctim;
            return version;
        }
        bool operator==(const FileVersion &other) const {
            return exists == other.exists && inode == other.inode && size == other.size &&
                   modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
                   changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
        }
    };

    QMutex mutex;
    QByteArray path;
    bool loaded = false;
    FileVersion version;
    QVariantMap values;
};

UserDefaults::UserDefaults() : cache(std::make_unique<Cache>()) {}
UserDefaults::~UserDefaults() = default;

UserDefaults &UserDefaults::standard() {
    static UserDefaults defaults;
    return defaults;
}

QVariantMap UserDefaults::snapshot() const {
    QMutexLocker lock(&cache->mutex);
    if (cache->path.isEmpty())
        cache->path = QFile::encodeName(open()->fileName());
    const Cache::FileVersion now = Cache::FileVersion::of(cache->path);
    if (!cache->loaded || !(now == cache->version)) {
        const auto settings = open();
        QVariantMap values;
        for (const QString &key : settings->allKeys())
            values.insert(key, settings->value(key));
        cache->values = values;
        cache->version = now;
        cache->loaded = true;
    }
    return cache->values;
}

void UserDefaults::forget() {
    QMutexLocker lock(&cache->mutex);
    cache->loaded = false;
}

std::optional<QVariant> UserDefaults::value(const QString &key) const {
    const QVariantMap values = snapshot();
    const auto found = values.constFind(key);
    if (found == values.constEnd())
        return std::nullopt;
    return *found;
}

std::optional<QString> UserDefaults::string(const QString &key) const {
    const std::optional<QVariant> v = value(key);
    if (!v)
        return std::nullopt;
    return v->toString();
}

std::optional<QStringList> UserDefaults::list(const QString &key) const {
    const std::optional<QVariant> v = value(key);
    if (!v)
        return std::nullopt;
    const QStringList parts =
        v->typeId() == QMetaType::QStringList ? v->toStringList() : v->toString().split(u',');
    QStringList entries;
    for (const QString &part : parts)
        if (!part.trimmed().isEmpty())
            entries << part.trimmed();
    return entries;
}

void UserDefaults::setValue(const QString &key, const QVariant &value) {
    const auto settings = open();
    settings->setValue(key, value);
    settings->sync();
    makePrivate(settings->fileName());
    forget();
}

void UserDefaults::setValues(const QList<QPair<QString, QVariant>> &values) {
    const auto settings = open();
    for (const auto &[key, value] : values)
        settings->setValue(key, value);
    settings->sync();
    makePrivate(settings->fileName());
    forget();
}

void UserDefaults::remove(const QString &key) {
    const auto settings = open();
    settings->remove(key);
    settings->sync();
    makePrivate(settings->fileName());
    forget();
}

QStringList UserDefaults::keys() const {
    return snapshot().keys();
}

QString UserDefaults::fileName() const {
    return open()->fileName();
}
