#pragma once

#include "labeloutlet.h"
#include "widgetoutlets.h"

#include <QWidget>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class TCPViewController;

// The popover's TCP terminal page: the clickable "TCP" title, the vendor popup, the
// terminal's IP address (stored on Enter when it is a valid address), the connection test
// and the state of the two answer listeners. The page shows the service's TCP channel and
// stays attached to it while it lives; loading the page starts the listeners.
class TcpPage : public QWidget {
    Q_OBJECT
public:
    explicit TcpPage(TCPViewController &controller, QWidget *parent = nullptr);
    ~TcpPage() override;

    // The page is loaded (listeners started) by load(), and shown by appear(); the shell
    // calls both at launch, as the popover's first showing does.
    void load();
    void appear();

    TCPViewController &controller() { return viewController; }
    ClickableLabel *titleLabel() const { return title; }
    QComboBox *devicePopup() const { return popup; }
    QLineEdit *ipField() const { return ip; }
    QPushButton *testButton() const { return test; }
    QLabel *kiccStatusLabel() const { return kiccStatus; }
    QLabel *smartroStatusLabel() const { return smartroStatus; }

private:
    ClickableLabel *title;
    QComboBox *popup;
    QLineEdit *ip;
    QPushButton *test;
    QLabel *kiccStatus;
    QLabel *kisStatus;
    QLabel *smartroStatus;
    LabelTitleOutlet titleOutlet;
    ComboBoxOutlet popupOutlet;
    LineEditOutlet ipOutlet;
    ButtonOutlet testOutlet;
    LabelOutlet kiccOutlet;
    LabelOutlet kisOutlet;
    LabelOutlet smartroOutlet;
    TCPViewController &viewController;
};
