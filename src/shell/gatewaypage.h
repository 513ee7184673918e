#pragma once

#include "gateway/websocketviewcontroller.h"
#include "labeloutlet.h"
#include "widgetoutlets.h"

#include <QWidget>
#include <memory>

class QLabel;
class QLineEdit;
class QPushButton;

// The popover's gateway page: shows whether the POS server is up, which site the connected
// POS page comes from, which sites may connect, and the latest refused ones; its buttons
// pin the connected POS's site or clear the list, and one turns on every protection we
// recommend for a shop. For a POS page from a public site it shows the command that lets
// the browsers connect it without asking the cashier. The page shows the service's gateway
// and stays attached to it while it lives; creating the page is what starts the server.
class GatewayPage : public QWidget {
    Q_OBJECT
public:
    explicit GatewayPage(WebSocketViewController &controller, QWidget *parent = nullptr);
    ~GatewayPage() override;

    // The page was shown.
    void appear();

    WebSocketViewController &controller() { return viewController; }
    QLabel *websocketLabel() const { return statusLabel; }
    QLabel *posConnectionLabel() const { return connectionLabel; }
    QLabel *posOriginLabel() const { return originLabel; }
    QLabel *allowedOriginsLabel() const { return allowedLabel; }
    QLabel *refusedOriginsLabel() const { return refusedLabel; }
    QPushButton *pinOriginButton() const { return pinButton; }
    QPushButton *clearOriginsButton() const { return clearButton; }
    QLabel *protectionsLabel() const { return protectionLabel; }
    QPushButton *lockDownButton() const { return protectButton; }
    QLabel *browserPolicyLabel() const { return policyLabel; }
    QLineEdit *browserPolicyCommandField() const { return policyField; }
    QPushButton *copyCommandButton() const { return copyButton; }

private:
    // Whether the recommended protections are on, and the button that turns them on.
    void showProtections();
    void lockDownClicked();
    // The command for the browsers' policy, for the POS shown and the origins allowed.
    void showBrowserPolicy();

    QLabel *statusLabel;
    QLabel *connectionLabel;
    QLabel *originLabel;
    QLabel *allowedLabel;
    QLabel *refusedLabel;
    QPushButton *pinButton;
    QPushButton *clearButton;
    QLabel *protectionLabel;
    QPushButton *protectButton;
    QLabel *policyLabel;
    QLineEdit *policyField;
    QPushButton *copyButton;
    LabelOutlet statusOutlet;
    LabelOutlet connectionOutlet;
    LabelOutlet originOutlet;
    LabelOutlet allowedOutlet;
    LabelOutlet refusedOutlet;
    ButtonOutlet pinOutlet;
    ButtonOutlet clearOutlet;
    WebSocketViewController &viewController;
};
