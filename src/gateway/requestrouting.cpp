#include "requestrouting.h"

#include "common/fatal.h"
#include "common/log.h"
#include "common/settings.h"
#include "common/terminalchannel.h"
#include "common/textform.h"
#include "kitchen/kitchenprintservice.h"
#include "request.h"

namespace {

template <typename T> T orStop(std::variant<T, RequestError> result) {
    if (auto *error = std::get_if<RequestError>(&result))
        fatalStop(error->reason);
    return std::get<T>(std::move(result));
}

// The five-key dictionary as a channel takes it. Routing always puts bytes in "data"; the
// POS's "requesttype" and "van" count only when it sent them as JSON text.
TerminalRequest terminalRequest(const QVariantMap &internal) {
    TerminalRequest request;
    request.data = internal.value(RequestKey::data).toByteArray();
    const QVariant type = internal.value(RequestKey::requesttype);
    if (type.typeId() == QMetaType::QString)
        request.requestType = type.toString();
    const QVariant van = internal.value(RequestKey::van);
    if (van.typeId() == QMetaType::QString)
        request.van = van.toString();
    return request;
}

} // namespace

void handleRequest(const QString &text, const TerminalChannels &channels) {
    logLine(QStringLiteral("RECV FIRED!!!:"));

    const ParsedRequest request = orStop(parseRequest(text));
    const QVariantMap &internal = request.internal;
    const RouteTarget target =
        orStop(routeFor(request.object, [] { return Settings::shared().mainInterface(); }));

    switch (target) {
    case RouteTarget::KitchenPrint:
        KitchenPrintService().printKitchenOrder(internal);
        break;
    case RouteTarget::TcpTerminal:
        if (channels.tcp)
            channels.tcp->handleRequest(terminalRequest(internal));
        break;
    case RouteTarget::UsbTerminal:
        if (channels.usb)
            channels.usb->handleRequest(terminalRequest(internal));
        break;
    case RouteTarget::Drop:
        break;
    }
}

std::variant<RouteTarget, RequestError> routeFor(const QVariantMap &requestObject,
                                                 const std::function<Settings::Interface()> &mainInterface) {
    if (!requestObject.contains(RequestKey::requesttype))
        return RequestError{QStringLiteral("request has no \"requesttype\"")};
    if (textualForm(requestObject.value(RequestKey::requesttype)) == QLatin1String("kitchenPrint"))
        return RouteTarget::KitchenPrint;

    switch (mainInterface()) {
    case Settings::Interface::None:
        return RequestError{
            QStringLiteral("%1 is not set; choose TCP or USB before sending terminal requests")
                .arg(Settings::name(Settings::Key::MainInterface))};
    case Settings::Interface::Tcp:
        return RouteTarget::TcpTerminal;
    case Settings::Interface::Usb:
        return RouteTarget::UsbTerminal;
    case Settings::Interface::Other:
        break;
    }
    return RouteTarget::Drop;
}
