#pragma once

#include <QByteArray>
#include <QString>
#include <optional>

// Korean code page 949 (a superset of EUC-KR), as printers and card terminals speak it.
// Both directions are strict: a character that has no code page 949 form, or a byte
// sequence that is not valid code page 949, makes the whole conversion fail. Nothing is
// ever replaced or dropped, because a silently altered receipt is worse than none.
namespace cp949 {

std::optional<QByteArray> encode(const QString &text);
std::optional<QString> decode(const QByteArray &bytes);

} // namespace cp949
