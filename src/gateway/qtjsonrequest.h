#pragma once

#include "request.h"

// The frame reader the service used before it read frames with simdjson: the hand-written
// strict check, then QJsonDocument, then QJsonObject::toVariantMap. It is kept only while
// the two readers are compared (the differential fuzz target and the parsing benchmark);
// nothing in the service calls it.
std::variant<QVariantMap, RequestError> parseRequestObjectWithQtJson(const QString &frameText);
