#include "request.h"

#include <optional>

namespace {

std::optional<QByteArray> bytesOf(const QVariant &value) {
    if (value.typeId() != QMetaType::QVariantList)
        return std::nullopt;
    const QVariantList list = value.toList();
    QByteArray bytes;
    bytes.reserve(list.size());
    for (const QVariant &element : list) {
        const std::optional<char> byte = byteOf(element);
        if (!byte)
            return std::nullopt;
        bytes.append(*byte);
    }
    return bytes;
}

RequestError noData() {
    return RequestError{QStringLiteral("request has no \"data\"")};
}

RequestError dataNotBytes() {
    return RequestError{QStringLiteral("request \"data\" is not an array of integers 0 to 255")};
}

QVariantMap internalRequest(const QByteArray &data, const QVariantMap &requestObject) {
    QVariantMap internal;
    internal.insert(RequestKey::data, data);
    for (const QString &key : {RequestKey::ip, RequestKey::port, RequestKey::van, RequestKey::requesttype})
        internal.insert(key, requestObject.contains(key) ? requestObject.value(key) : nullValue());
    return internal;
}

} // namespace

std::variant<QVariantMap, RequestError> parseRequestObject(const QString &frameText) {
    auto frame = readJsonFrame(frameText);
    if (auto *error = std::get_if<RequestError>(&frame))
        return *error;
    return std::get<JsonFrame>(std::move(frame)).object;
}

std::variant<QVariantMap, RequestError> buildInternalRequest(const QVariantMap &requestObject) {
    if (!requestObject.contains(RequestKey::data))
        return noData();
    const std::optional<QByteArray> data = bytesOf(requestObject.value(RequestKey::data));
    if (!data)
        return dataNotBytes();
    return internalRequest(*data, requestObject);
}

std::variant<ParsedRequest, RequestError> parseRequest(const QString &frameText) {
    auto read = readJsonFrame(frameText, RequestKey::data);
    if (auto *error = std::get_if<RequestError>(&read))
        return *error;
    JsonFrame &frame = std::get<JsonFrame>(read);
    switch (frame.data) {
    case JsonFrame::Data::Absent:
        return noData();
    case JsonFrame::Data::NotBytes:
        return dataNotBytes();
    case JsonFrame::Data::Bytes:
        break;
    }
    ParsedRequest parsed;
    parsed.object = std::move(frame.object);
    parsed.internal = internalRequest(frame.bytes, parsed.object);
    return parsed;
}
