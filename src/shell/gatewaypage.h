#pragma once

#include "labeloutlet.h"

#include <QWidget>
#include <memory>

class QLabel;
class WebSocketViewController;

// The popover's gateway page: shows whether the POS server is up. Loading the page is
// what starts the server.
class GatewayPage : public QWidget {
    Q_OBJECT
public:
    explicit GatewayPage(QWidget *parent = nullptr);
    ~GatewayPage() override;

    WebSocketViewController &controller() { return *viewController; }
    QLabel *websocketLabel() const { return statusLabel; }

private:
    QLabel *statusLabel;
    QLabel *connectionLabel;
    LabelOutlet statusOutlet;
    LabelOutlet connectionOutlet;
    std::unique_ptr<WebSocketViewController> viewController;
};
