#include "serialanswerframing.h"

#include "common/cp949.h"
#include "common/fatal.h"
#include "common/log.h"
#include "common/settings.h"
#include "common/textform.h"
#include "common/userdefaults.h"

SerialAnswerFraming::Trim SerialAnswerFraming::trimFor(const QString &deviceType) {
    // KIS-7430 frames carry a shorter header and no trailer before the ETX; every other
    // model, known or not, is cut like the TS-132N.
    if (deviceType == QLatin1String("KIS-7430"))
        return {3, 1};
    return {5, 3};
}

SerialAnswerFraming::SerialAnswerFraming(SettingReader reader) : readSetting(std::move(reader)) {
    if (!readSetting)
        readSetting = [](const QString &key) { return UserDefaults::standard().value(key); };
}

QString SerialAnswerFraming::requiredSetting(const QString &key) const {
    const std::optional<QVariant> value = readSetting(key);
    if (!value)
        fatalStop(QStringLiteral("%1 is not set, but a serial answer needs it").arg(key));
    return textualForm(*value);
}

std::optional<TerminalAnswer> SerialAnswerFraming::didReceiveData(const QByteArray &chunk) {
    const QString mainInterface = requiredSetting(Settings::name(Settings::Key::MainInterface));
    std::optional<QString> deviceName;
    const Result result = receive(chunk, mainInterface, [&] {
        deviceName = requiredSetting(Settings::name(Settings::Key::SerialDeviceType));
        return *deviceName;
    });
    if (result.outcome == Outcome::Overflowed)
        logLine(QStringLiteral("serial answer discarded: more than %1 bytes without an end of text; "
                               "waiting for the next start of text")
                    .arg(maximumAnswerLength));
    if (result.outcome != Outcome::Answered)
        return std::nullopt;
    return TerminalAnswer{result.text, deviceName.value_or(QString())};
}

SerialAnswerFraming::Result SerialAnswerFraming::receive(const QByteArray &chunk,
                                                         const QString &mainInterface,
                                                         const std::function<QString()> &deviceType) {
    // Bytes that come while TCP is active belong to nobody: they do not even touch an
    // answer that was being collected.
    if (mainInterface != QLatin1String("USB"))
        return {Outcome::Ignored, {}};
    if (chunk.isEmpty())
        return {Outcome::Collecting, {}};

    if (chunk.front() == startOfText) {
        buffer.clear();
        waitingForStart = false;
    }
    // The model decides the cut; it is read for every chunk with bytes in it, so a
    // missing setting stops the service at the first byte, not only at an ETX.
    const QString model = deviceType();
    if (waitingForStart)
        return {Outcome::Discarded, {}};
    // Checked before the bytes are kept, so the buffer never holds more than the limit.
    if (buffer.size() + chunk.size() > maximumAnswerLength) {
        buffer.clear(); // and its memory freed
        waitingForStart = true;
        return {Outcome::Overflowed, {}};
    }
    buffer.append(chunk);

    if (!chunk.contains(endOfText))
        return {Outcome::Collecting, {}};

    // The whole chunk is already in the buffer: whatever followed the first ETX in it
    // goes with the answer.
    if (buffer.size() < minimumAnswerLength) {
        buffer.clear();
        return {Outcome::TooShort, {}};
    }
    const Trim trim = trimFor(model);
    const QByteArray payload = buffer.mid(trim.front, buffer.size() - trim.front - trim.end);
    buffer.clear();
    const std::optional<QString> text = cp949::decode(payload);
    if (!text)
        return {Outcome::Undecodable, {}};
    return {Outcome::Answered, *text};
}
