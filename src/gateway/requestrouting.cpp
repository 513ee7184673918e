#include "requestrouting.h"

#include "common/fatal.h"
#include "common/log.h"
#include "common/notificationcenter.h"
#include "common/notificationnames.h"
#include "common/userdefaults.h"
#include "kitchen/kitchenprintservice.h"
#include "request.h"

namespace {

template <typename T> T orStop(std::variant<T, RequestError> result) {
    if (auto *error = std::get_if<RequestError>(&result))
        fatalStop(error->reason);
    return std::get<T>(std::move(result));
}

} // namespace

void handleRequest(const QString &text) {
    logLine(QStringLiteral("RECV FIRED!!!:"));

    const ParsedRequest request = orStop(parseRequest(text));
    const QVariantMap &internal = request.internal;
    const RouteTarget target = orStop(routeFor(
        request.object, [] { return UserDefaults::standard().value(QStringLiteral("MAIN_INTERFACE")); }));

    switch (target) {
    case RouteTarget::KitchenPrint:
        KitchenPrintService().printKitchenOrder(internal);
        break;
    case RouteTarget::TCPcontrol:
        NotificationCenter::defaultCenter().post(NotificationName::TCPcontrol, internal);
        break;
    case RouteTarget::USBcontrol:
        NotificationCenter::defaultCenter().post(NotificationName::USBcontrol, internal);
        break;
    case RouteTarget::Drop:
        break;
    }
}
